// The per-cycle sources of discovery: the ignore list, the kernel ARP table, the
// IPv6 neighbour table, the DHCP lease snapshot, Wi-Fi station membership, and the
// command that drops a stale ARP entry. Main thread only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "hosts/lanhost.h"
#include "platform/mib.h"

inline constexpr size_t kSourceIfnameLen = 16;
inline constexpr size_t kIpv6AddrLen = kIpv6Len;
inline constexpr int64_t kLeaseRefreshSec = 5;

struct arp_entry {
    arp_entry *next;
    uint8_t mac[6];
    uint32_t ip;  // network byte order
    char ifname[kSourceIfnameLen + 1];
    uint32_t complete;  // 1: the kernel's entry is complete (flag 0x2)
    arp_entry *sameMacNext;  // the list's next node of this MAC, once the list is indexed
};

struct ipv6_neigh {
    ipv6_neigh *next;
    uint8_t mac[6];
    uint8_t addr[kIpv6AddrLen];
};

// --- ignore list ---
// -1 when the file cannot be opened, else 0. Removes the hosts of every listed port.
int read_ignore_ifnames();
int is_ignore_ifname(const char *name);
// The list as last read ("" when none); tests and the dump.
std::string_view ignoreIfnameList();

// --- ARP table ---
// One "/proc/net/arp" line, parsed without regard to the device rule.
struct ArpLine {
    char ip[16];
    unsigned int flags;
    char mac[18];
    char device[16];
};
// True when the line yields all four values; never reads past LINE.
bool parseArpLine(std::string_view line, ArpLine &out);
int collect_arp_entries(arp_entry **head);
arp_entry *find_arp_entry(arp_entry *start, const uint8_t *mac);
void free_arp_entries(arp_entry **head);
// The same answers as find_arp_entry(LIST, MAC) and find_arp_entry(NODE->next,
// NODE->mac), from the cycle's index when LIST is the list collect_arp_entries built.
arp_entry *firstArpEntry(arp_entry *list, const uint8_t *mac);
arp_entry *nextArpEntryOfMac(arp_entry *list, arp_entry *node);

// --- IPv6 neighbours ---
// One "ip -6 neigh" line: address, device, link-layer address.
struct Ipv6NeighLine {
    char addr[46];
    char device[16];
    char lladdr[18];
};
// True when the line yields all three values; never reads past LINE.
bool parseIpv6NeighLine(std::string_view line, Ipv6NeighLine &out);
int collect_ipv6_neigh(ipv6_neigh **head);
ipv6_neigh *update_ipv6_neigh(const uint8_t *mac, const char *text, ipv6_neigh *head);
ipv6_neigh *find_ipv6_neigh(ipv6_neigh *head, const uint8_t *mac);
// find_ipv6_neigh's answer, from the cycle's index when LIST is the collected list.
ipv6_neigh *findIpv6Neigh(ipv6_neigh *list, const uint8_t *mac);
void free_ipv6_neigh(ipv6_neigh **head);
// True for an address in fe80::/10.
bool isLinkLocalIpv6(const uint8_t *addr);

// --- DHCP lease snapshot ---
// Re-reads the lease database at most every 5 s; returns the record count.
int refresh_dhcp_leases();
dhcp_lease *dhcpLeaseSnapshot();
int dhcpLeaseCount();
// getDhcpClientInfo's answer over the snapshot, from its index.
dhcp_lease *findDhcpLease(const uint8_t *mac);

// --- the rest ---
int is_wifi_station(const uint8_t *mac);
int del_arp_entry(uint32_t ip);

// Empties the ignore list and the lease snapshot (tests).
void resetDiscoverySources();
