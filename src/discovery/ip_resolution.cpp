#include "discovery/ip_resolution.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "core/log.h"
#include "platform/mib.h"
#include "sniffer/neighbor_cache.h"

namespace {

constexpr const char *kCycle = kDiscoveryCycleName;
constexpr uint32_t kLeaseReleasedSecs = 60;  // at or below: the lease counts as released
constexpr int kFuzzyOctetSpread = 14;
constexpr size_t kLeaseNameLen = sizeof(dhcp_lease::hostname);

bool leaseIsValid(const dhcp_lease *lease) {
    return lease && ntohl(lease->leaseTime) > kLeaseReleasedSecs;
}

bool hasNoAddress(const lanHostInfo_t &host) { return host.ip == 0 && isZeroIpv6(host.ipv6); }

const char *ipv4Text(uint32_t ip, char (&text)[INET_ADDRSTRLEN]) {
    return inet_ntop(AF_INET, &ip, text, sizeof text);
}

// At most 63 characters, and always a terminator in the last byte.
void copyDevName(lanHostInfo_t &host, const char *name, size_t bound) {
    std::strncpy(host.devName, name, std::min(bound, kHostTextLen));
    host.devName[kHostTextLen - 1] = '\0';
}

const char *clientStateName(uint32_t state) {
    return state == DHCP_CLIENT_NOTIFIED ? "DHCP_CLIENT_NOTIFIED" : "DHCP_CLIENT_NONE";
}

bool fuzzyOctet(uint8_t record, uint8_t host) {
    int difference = static_cast<int>(record) - static_cast<int>(host);
    return difference >= -kFuzzyOctetSpread && difference <= kFuzzyOctetSpread;
}

bool fuzzyMacMatch(const uint8_t *record, const uint8_t *mac) {
    return std::memcmp(record + 1, mac + 1, 4) == 0 && fuzzyOctet(record[0], mac[0]) &&
           fuzzyOctet(record[5], mac[5]);
}

// The next node of NODE's MAC in LIST that is complete, or nullptr.
arp_entry *nextComplete(arp_entry *list, arp_entry *node) {
    for (arp_entry *next = nextArpEntryOfMac(list, node); next;
         next = nextArpEntryOfMac(list, next))
        if (next->complete) return next;
    return nullptr;
}

void lookupLease(DiscoveryStep &step) {
    step.lease = nullptr;
    if (step.isBridgeBind) return;
    if (step.completeArpCount == 2)
        find_dhcp_lease_fuzzy(dhcpLeaseSnapshot(), dhcpLeaseCount(), step.mac, &step.lease);
    else
        step.lease = findDhcpLease(step.mac);
}

void takeLeaseName(hostEntry &entry, const dhcp_lease &lease) {
    lanHostInfo_t &host = entry.lanHost;
    size_t length = strnlen(lease.hostname, kLeaseNameLen);
    if (length == 0 || length == kLeaseNameLen) return;  // none, or not terminated
    if (std::strncmp(lease.hostname, host.devName, kHostTextLen - 1) == 0) return;
    copyDevName(host, lease.hostname, kHostTextLen);
    HX_DBG(DBG_TRACE, "[%s %d]:devName:%s\n", kCycle, __LINE__, host.devName);
    if (host.firstConnect == 0) entry.informChange = 1;
}

void noteLease(hostEntry &entry, const DiscoveryStep &step) {
    lanHostInfo_t &host = entry.lanHost;
    host.dhcpLeaseFound = 0;
    if (!step.lease) return;
    host.dhcpLeaseFound = 1;
    takeLeaseName(entry, *step.lease);
}

void updateClientState(hostEntry &entry, const DiscoveryStep &step) {
    lanHostInfo_t &host = entry.lanHost;
    if (!step.lease) {
        HX_DBG(DBG_IP_SOURCE, "[%s %d]: LAN host " MAC_FMT " got no DHCP lease -> DHCP_CLIENT_NONE\n",
               kCycle, __LINE__, MAC_ARGS(host.mac));
        host.dhcpClientState = DHCP_CLIENT_NONE;
        return;
    }
    if (!leaseIsValid(step.lease)) return;
    HX_DBG(DBG_IP_SOURCE, "[%s %d]: LAN host " MAC_FMT " got DHCP lease=%lu.\n", kCycle, __LINE__,
           MAC_ARGS(host.mac), static_cast<unsigned long>(ntohl(step.lease->leaseTime)));
    if (host.dhcpClientState != DHCP_CLIENT_NONE && host.dhcpClientState != DHCP_CLIENT_NOTIFIED)
        return;
    HX_DBG(DBG_IP_SOURCE, "[%s %d]: %s, got valid DHCP lease -> DHCP_CLIENT_FOUND\n", kCycle,
           __LINE__, clientStateName(host.dhcpClientState));
    host.dhcpClientState = DHCP_CLIENT_FOUND;
    entry.informChange = 1;
}

// A host with two addresses reports the one its lease names.
void repickArpByLease(DiscoveryStep &step, arp_entry *list) {
    arp_entry *match = step.arpMatch;
    if (!leaseIsValid(step.lease) || step.completeArpCount != 2 || !match || !match->complete ||
        match->ip == step.lease->ip)
        return;
    for (arp_entry *node = nextArpEntryOfMac(list, match); node;
         node = nextArpEntryOfMac(list, node)) {
        if (node->ip != step.lease->ip) continue;
        if (node->complete) step.arpMatch = node;
        return;
    }
}

void takeArpAddress(hostEntry &entry, DiscoveryStep &step) {
    lanHostInfo_t &host = entry.lanHost;
    uint32_t ip = step.arpMatch->ip;
    if (host.ip == 0) {
        HX_DBG(DBG_IP_SOURCE, "[%s %d]: found arp ip(0x%x) for lanHost without ip, update it\n",
               kCycle, __LINE__, ip);
        entry.informChange = 1;
        host.firstGotIP = 1;
        host.ip = ip;
    } else if (host.ip != ip) {
        entry.informChange = 1;
        host.firstGotIP = 0;
        host.ip = ip;
    }
    HX_DBG(DBG_IP_SOURCE, "[%s %d]: ARP lanhost do not SNIFFER.\n", kCycle, __LINE__);
    step.needSniffer = false;
    host.ipSource = LANHOST_IP_SOURCE_ARP;
    char text[INET_ADDRSTRLEN];
    HX_DBG(DBG_IP_SOURCE, "[%s %d]: ARP avalable IP=%s, firstGotIP=%d.\n", kCycle, __LINE__,
           ipv4Text(host.ip, text), host.firstGotIP);
}

void takeLeaseAddress(hostEntry &entry, DiscoveryStep &step) {
    lanHostInfo_t &host = entry.lanHost;
    if (host.ip != step.lease->ip) {
        entry.informChange = 1;
        host.firstGotIP = hasNoAddress(host) ? 1 : 0;
        host.ip = step.lease->ip;
    }
    HX_DBG(DBG_IP_SOURCE, "[%s %d]: DHCP lanhost do not SNIFFER.\n", kCycle, __LINE__);
    step.needSniffer = false;
    host.ipSource = LANHOST_IP_SOURCE_DHCP;
    char text[INET_ADDRSTRLEN];
    HX_DBG(DBG_IP_SOURCE, "[%s %d]: DHCP lease avalable IP=%s, firstGotIP=%d.\n", kCycle, __LINE__,
           ipv4Text(host.ip, text), host.firstGotIP);
}

// Bridge-bound hosts wait for the sniffer; otherwise ARP wins over a valid lease.
void selectIpv4Source(hostEntry &entry, DiscoveryStep &step) {
    if (step.isBridgeBind) {
        step.needSniffer = true;
    } else if (step.arpMatch && step.arpMatch->complete) {
        takeArpAddress(entry, step);
    } else if (leaseIsValid(step.lease)) {
        takeLeaseAddress(entry, step);
    }
}

// A released lease takes the address away at once, from the kernel and the sniffer
// cache too, so that neither hands it back.
void applyRelease(hostEntry &entry, DiscoveryStep &step) {
    lanHostInfo_t &host = entry.lanHost;
    if (host.dhcpClientState != DHCP_CLIENT_FOUND || !step.lease || leaseIsValid(step.lease))
        return;
    host.dhcpClientState = DHCP_CLIENT_RELEASED;
    del_arp_entry(host.ip);
    delSnifferNeighborHost(host.mac);
    host.firstGotIP = 0;
    host.ip = 0;
    host.ipSource = LANHOST_IP_SOURCE_DHCP;
    entry.informChange = 1;
    HX_DBG(DBG_IP_SOURCE,
           "[%s %d]: DHCP_CLIENT_FOUND, got DHCP release -> DHCP_CLIENT_RELEASED, firstGotIP=%d.\n",
           kCycle, __LINE__, host.firstGotIP);
    HX_DBG(DBG_IP_SOURCE,
           "[%s %d]: LANHOST_IP_SOURCE_DHCP && DHCP_CLIENT_RELEASED -> notify first & update by "
           "SNIFFER later.\n",
           kCycle, __LINE__);
    step.needSniffer = false;
}

void takeIpv6Address(hostEntry &entry, DiscoveryStep &step, const DiscoverySources &sources) {
    lanHostInfo_t &host = entry.lanHost;
    const ipv6_neigh *neigh = findIpv6Neigh(sources.ipv6, host.mac);
    if (!neigh || std::memcmp(neigh->addr, host.ipv6, kIpv6Len) == 0) return;
    if (host.firstConnect == 0) entry.informChange = 1;
    if (hasNoAddress(host)) {
        host.firstGotIP = 1;
        HX_DBG(DBG_IP_SOURCE, "[%s %d]: IPv6 LAN host -> notify first & update by SNIFFER later.\n",
               kCycle, __LINE__);
        step.needSniffer = false;
    } else {
        host.firstGotIP = 0;
    }
    std::memcpy(host.ipv6, neigh->addr, kIpv6Len);
    char text[INET6_ADDRSTRLEN];
    HX_DBG(DBG_IP_SOURCE, "[%s %d]: change ipv6 addr:%s, firstGotIP=%d.\n", kCycle, __LINE__,
           inet_ntop(AF_INET6, host.ipv6, text, sizeof text), host.firstGotIP);
}

void askSniffer(hostEntry &entry, const DiscoveryStep &step) {
    lanHostInfo_t &host = entry.lanHost;
    if (!step.needSniffer) {
        HX_DBG(DBG_IP_SOURCE, "[%s %d]: no need SNIFFER this round.\n", kCycle, __LINE__);
        return;
    }
    uint32_t ip = 0;
    char name[kNeighborNameLen] = {};
    if (getSnifferNeighborHost(host.mac, &ip, name, sizeof name) != 1) return;
    if (ip != host.ip) {
        host.firstGotIP = hasNoAddress(host) ? 1 : 0;
        host.ip = ip;
        host.ipSource = LANHOST_IP_SOURCE_SNIFFER;
        entry.informChange = 1;
        char text[INET_ADDRSTRLEN];
        HX_DBG(DBG_IP_SOURCE, "[%s %d]: SNIFFER avalable IP=%s, firstGotIP=%d.\n", kCycle,
               __LINE__, ipv4Text(host.ip, text), host.firstGotIP);
    }
    if (name[0] != '\0' && std::strncmp(name, host.devName, kHostTextLen - 1) != 0) {
        copyDevName(host, name, sizeof name);
        entry.informChange = 1;
    }
}

}  // namespace

int find_dhcp_lease_fuzzy(dhcp_lease *array, int count, const uint8_t *mac, dhcp_lease **record) {
    if (!array || !mac || !record) return 0;
    for (int i = 0; i < count; ++i) {
        if (!fuzzyMacMatch(array[i].mac, mac)) continue;
        *record = &array[i];
        return 1;
    }
    return 0;
}

void selectArpEntry(arp_entry *list, DiscoveryStep &step) {
    step.completeArpCount = 0;
    step.arpMatch = firstArpEntry(list, step.mac);
    if (!step.arpMatch) return;
    if (!step.arpMatch->complete) {
        arp_entry *complete = nextComplete(list, step.arpMatch);
        if (!complete) return;
        step.arpMatch = complete;
    }
    step.completeArpCount = nextComplete(list, step.arpMatch) ? 2 : 1;
}

void resolveHostAddresses(hostEntry &entry, DiscoveryStep &step, const DiscoverySources &sources) {
    lookupLease(step);
    noteLease(entry, step);
    updateClientState(entry, step);
    repickArpByLease(step, sources.arp);
    HX_DBG(DBG_IP_SOURCE, "[%s %d]: Before ipSource=%d\n", kCycle, __LINE__,
           static_cast<int>(entry.lanHost.ipSource));
    selectIpv4Source(entry, step);
    applyRelease(entry, step);
    takeIpv6Address(entry, step, sources);
    askSniffer(entry, step);
    HX_DBG(DBG_IP_SOURCE, "[%s %d]: After ipSource=%d\n", kCycle, __LINE__,
           static_cast<int>(entry.lanHost.ipSource));
}
