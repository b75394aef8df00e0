// Address resolution for one forwarding entry of the discovery cycle: which IPv4
// address (ARP table, DHCP lease, sniffer cache), IPv6 address and name a host has,
// and the DHCP client state that notices a released lease.
#pragma once

#include <cstdint>

#include "discovery/sources.h"
#include "hosts/lanhost.h"

// Log lines of the whole cycle carry its name.
inline constexpr const char *kDiscoveryCycleName = "__zvt_hostrix_update_from_arp";

// The working values one forwarding entry carries through the cycle.
struct DiscoveryStep {
    uint8_t mac[kMacLen] = {};
    arp_entry *arpMatch = nullptr;  // first ARP node of the MAC, complete if any is
    int completeArpCount = 0;       // 0, 1, or 2 for "two or more"
    dhcp_lease *lease = nullptr;
    bool isBridgeBind = false;
    bool needSniffer = true;
};

// The lists one cycle reads.
struct DiscoverySources {
    arp_entry *arp = nullptr;
    ipv6_neigh *ipv6 = nullptr;
};

// Picks the ARP node for STEP's MAC and counts its complete entries.
void selectArpEntry(arp_entry *list, DiscoveryStep &step);
// Lease lookup, DHCP client state, IPv4 source, release, IPv6 and the sniffer cache.
void resolveHostAddresses(hostEntry &entry, DiscoveryStep &step, const DiscoverySources &sources);

// Records whose MAC equals MAC in octets 2..5 and lies within 14 in the first and last.
int find_dhcp_lease_fuzzy(dhcp_lease *array, int count, const uint8_t *mac, dhcp_lease **record);
