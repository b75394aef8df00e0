// The neighbour cache: MAC, IPv4 address and DHCP host name of every neighbour the
// sniffer saw in the last 20 minutes. The sniffer thread fills it; the main thread
// reads it only through the two locked accessors.
#pragma once

#include <sys/queue.h>

#include <cstddef>
#include <cstdint>

inline constexpr int64_t kNeighborLifetimeSec = 1200;
inline constexpr size_t kNeighborNameLen = 64;

struct neighbor_host {
    TAILQ_ENTRY(neighbor_host) entries;
    uint8_t mac[6];
    uint32_t ip;  // network byte order; 0 = none (or released)
    char name[kNeighborNameLen];
    int64_t last_seen;  // monotonic seconds
};

// IP may be null (address left as it is); NAME may be null (name kept).
// 0; -1 for the all-zero MAC.
int update_neighbor_host(const uint8_t *mac, const uint32_t *ip, const char *name);
// The caller holds the cache lock.
neighbor_host *__find_neighbor_host(const uint8_t *mac);
// 1 when the cache holds a usable address (not 0, not 169.254/16) for MAC.
int getSnifferNeighborHost(const uint8_t *mac, uint32_t *ip, char *name, size_t len);
int delSnifferNeighborHost(const uint8_t *mac);
// Drops entries 1200 s old or more; with FORCE, every entry.
int aging_neighbor_host(int force);
int dump_neighbor_host();
