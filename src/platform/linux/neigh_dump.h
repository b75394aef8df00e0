// The kernel's IPv4 and IPv6 neighbour tables from an rtnetlink neighbour dump, and
// the text `ip neigh` prints for them, which the discovery cycle reads as before.
// The decoder and the formatter are pure: they read only what they are given.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/netlink_route.h"

// Entries kept from one dump; the kernel's own default limit is 1024 per table.
inline constexpr size_t kMaxNeighEntries = 4096;
inline constexpr size_t kNeighAddrBytes = 16;    // IPv6; IPv4 uses the first 4
inline constexpr size_t kMaxLinkAddrBytes = 32;  // MAX_ADDR_LEN
inline constexpr int kNoNeighProtocol = -1;

struct NeighEntry {
    uint8_t family = 0;  // AF_INET or AF_INET6
    int ifindex = 0;
    uint16_t state = 0;  // NUD_ bits
    uint8_t flags = 0;   // NTF_ bits
    std::array<uint8_t, kNeighAddrBytes> addr{};
    size_t linkAddrLength = 0;  // 0: no link-layer address (an unresolved entry)
    std::array<uint8_t, kMaxLinkAddrBytes> linkAddr{};
    int protocol = kNoNeighProtocol;  // who made the entry, when the kernel says
};

// Decodes one datagram of a neighbour dump of FAMILY answering SEQUENCE, appending the
// entries that carry an address of that family to ENTRIES, at most kMaxNeighEntries.
RouteDumpStatus decodeNeighMessages(std::span<const uint8_t> datagram, uint8_t family,
                                    uint32_t sequence, std::vector<NeighEntry> &entries);

// Whether `ip neigh` shows the entry without "nud all": not when it is only NOARP
// (multicast and the like) or has no state at all.
bool neighShownByDefault(const NeighEntry &entry);

// The interface name to print for an interface index.
using NeighDeviceName = std::function<std::string(int ifindex)>;

// `ip neigh` lines for the entries it shows by default, e.g.
// "fd77::1 dev br0 lladdr 0a:77:00:00:00:01 REACHABLE \n".
std::string formatNeighListing(const std::vector<NeighEntry> &entries,
                               const NeighDeviceName &deviceName);
