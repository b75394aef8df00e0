// Active probing of quiet hosts: ARP requests on the bridge, IPv6 neighbour solicitations.
#pragma once

#include <linux/if_packet.h>

#include <cstddef>
#include <cstdint>
#include <span>

inline constexpr size_t kArpFrameLen = 42;

int sendARPRequest();
// 0 = the frame for TARGET (network order) is built; 1 = it could not be.
int ARPRequestCreate(uint32_t target);
// Index of interface NAME; ends the process when it cannot be found.
int get_ifindex(const char *name);
int sendIpv6NeighSolicit();

// The request frame as last built.
std::span<const uint8_t, kArpFrameLen> arpRequestFrame();

// Opens the ARP socket bound to LINK (filled here); -1 on failure. Tests put a
// socketpair end in place of the raw socket; nullptr restores the real one.
using ArpSocketOpener = int (*)(sockaddr_ll &link);
void setArpSocketOpener(ArpSocketOpener opener);
