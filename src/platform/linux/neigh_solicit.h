// IPv6 neighbour solicitation on a LAN interface: the message and where it goes, built
// without the kernel so they can be checked byte by byte.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <span>

inline constexpr size_t kIpv6AddressBytes = 16;
inline constexpr size_t kNeighSolicitMacBytes = 6;
// The solicitation (24 bytes) and one source link-layer address option (8 bytes).
inline constexpr size_t kNeighSolicitBytes = 32;

// The solicited-node multicast group of TARGET: ff02::1:ff followed by its last 24 bits.
in6_addr solicitedNodeAddress(std::span<const uint8_t, kIpv6AddressBytes> target);

// Writes the solicitation for TARGET, announcing MAC as our link-layer address, into
// OUT with a zero checksum (the kernel fills it); its length, or 0 when OUT is too small.
size_t buildNeighSolicit(std::span<const uint8_t, kIpv6AddressBytes> target,
                         std::span<const uint8_t, kNeighSolicitMacBytes> mac,
                         std::span<uint8_t> out);
