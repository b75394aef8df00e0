// The neighbour cache: MAC, IPv4 address and DHCP host name of every neighbour the
// sniffer saw in the last 20 minutes. The sniffer thread fills it; the main thread
// reads it only through the two locked accessors.
//
// The cache is bounded: the LAN decides how many MACs it sees, and a flood of
// made-up ones must cost neither unbounded memory nor per-frame scans. It holds at
// most kNeighborCapacity entries in a preallocated pool, indexed by a hash of the MAC
// and linked from least to most recently seen; a new MAC beyond the bound replaces the
// entry seen least recently.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr int64_t kNeighborLifetimeSec = 1200;
inline constexpr size_t kNeighborNameLen = 64;
inline constexpr size_t kNeighborCapacity = 4096;
// While the cache is full, at most one line per this many seconds says how many
// entries were replaced since the last one.
inline constexpr int64_t kNeighborEvictionLogIntervalSec = 60;

struct neighbor_host {
    uint16_t older;  // pool links in sighting order; kNeighborCapacity at either end
    uint16_t newer;
    uint8_t mac[6];
    uint32_t ip;  // network byte order; 0 = none (or released)
    char name[kNeighborNameLen];
    int64_t last_seen;  // monotonic seconds
};

// IP may be null (address left as it is); NAME may be null (name kept). A name that
// is not printable text is not stored. 0; -1 for the all-zero MAC.
int update_neighbor_host(const uint8_t *mac, const uint32_t *ip, const char *name);
// The caller holds the cache lock.
neighbor_host *__find_neighbor_host(const uint8_t *mac);
// 1 when the cache holds a usable address (not 0, not 169.254/16) for MAC.
int getSnifferNeighborHost(const uint8_t *mac, uint32_t *ip, char *name, size_t len);
int delSnifferNeighborHost(const uint8_t *mac);
// Drops entries 1200 s old or more, oldest first, a few at a time under the lock so
// that the accessors never wait long; with FORCE, every entry.
int aging_neighbor_host(int force);
// One line per entry, least recently seen first.
int dump_neighbor_host();
