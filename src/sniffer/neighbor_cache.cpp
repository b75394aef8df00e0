#include "sniffer/neighbor_cache.h"

#include <arpa/inet.h>
#include <pthread.h>
#include <sys/random.h>

#include <array>
#include <cstring>
#include <string_view>

#include "core/clock.h"
#include "core/log.h"
#include "core/text.h"
#include "platform/mib.h"
#include "sniffer/sniffer.h"

namespace {

constexpr size_t kMacOctets = 6;
constexpr size_t kNameMaxChars = kNeighborNameLen - 1;
// 169.254.0.0/16: link-local addresses a host picks for itself, never worth reporting.
constexpr uint32_t kLinkLocalPrefix = 0xa9fe0000;
constexpr uint32_t kPrefix16Mask = 0xffff0000;

using Index = uint16_t;
constexpr Index kNoEntry = kNeighborCapacity;
static_assert(kNeighborCapacity < UINT16_MAX, "pool indices are 16-bit");
// Twice as many slots as entries keeps linear-probe runs short.
constexpr unsigned kSlotBits = 13;
constexpr size_t kSlotCount = size_t{1} << kSlotBits;
static_assert(kSlotCount >= 2 * kNeighborCapacity);
constexpr uint64_t kGoldenRatio64 = 0x9e3779b97f4a7c15ULL;
// Expired entries removed per hold of the lock; the accessors wait for no more.
constexpr size_t kAgeingBatch = 64;

// The pool is zero pages until entries are first used; nothing is allocated per frame.
struct Cache {
    std::array<neighbor_host, kNeighborCapacity> pool;
    std::array<Index, kSlotCount> slots;  // pool index + 1; 0 = empty
    Index oldest = kNoEntry;
    Index newest = kNoEntry;
    Index freeList = kNoEntry;  // linked through `newer`
    Index highWater = 0;        // pool entries below this have been used
    unsigned evictedSinceLog = 0;
    int64_t lastEvictionLog = 0;
    bool evictionLogged = false;
};
Cache cache;
// A plain default mutex: the sniffer thread's cancellation path must be able to
// release it without knowing anything beyond pthreads.
pthread_mutex_t cacheMutex = PTHREAD_MUTEX_INITIALIZER;

// Holds the cache lock for one scope. No cancellation point is reached while it is
// held by the sniffer thread (lookups, the clock and getrandom only).
class CacheLock {
   public:
    CacheLock() { pthread_mutex_lock(&cacheMutex); }
    ~CacheLock() { pthread_mutex_unlock(&cacheMutex); }
    CacheLock(const CacheLock &) = delete;
    CacheLock &operator=(const CacheLock &) = delete;
};

// A secret key, so that the LAN cannot choose MACs that all land in one probe run.
uint64_t hashKey() {
    static const uint64_t key = [] {
        uint64_t value = 0;
        // Without randomness, the start time still differs from box to box.
        if (getrandom(&value, sizeof value, GRND_NONBLOCK) != sizeof value)
            value = static_cast<uint64_t>(monotonicMilliseconds()) * kGoldenRatio64;
        return value;
    }();
    return key;
}

// The 64-bit finaliser of MurmurHash3 over the keyed MAC; the top bits pick the slot.
size_t homeSlot(const uint8_t *mac) {
    uint64_t h = 0;
    std::memcpy(&h, mac, kMacOctets);
    h ^= hashKey();
    h ^= h >> 33;
    h *= 0xff51afd7ed558ccdULL;
    h ^= h >> 33;
    h *= 0xc4ceb9fe1a85ec53ULL;
    h ^= h >> 33;
    return static_cast<size_t>(h >> (64 - kSlotBits));
}

size_t nextSlot(size_t slot) {
    return (slot + 1) & (kSlotCount - 1);
}

// The slot holding MAC's entry, or the empty slot that ends its probe run.
size_t probe(const uint8_t *mac) {
    size_t slot = homeSlot(mac);
    while (cache.slots[slot] != 0 &&
           std::memcmp(cache.pool[cache.slots[slot] - 1].mac, mac, kMacOctets) != 0)
        slot = nextSlot(slot);
    return slot;
}

// Whether an entry whose home is HOME may move into HOLE, scanning forward to SLOT.
bool mayFill(size_t hole, size_t home, size_t slot) {
    return hole <= slot ? (home <= hole || home > slot) : (home <= hole && home > slot);
}

// Backward-shift deletion: no tombstones, so probe runs never grow with churn.
void clearSlot(size_t hole) {
    cache.slots[hole] = 0;
    for (size_t slot = nextSlot(hole); cache.slots[slot] != 0; slot = nextSlot(slot)) {
        size_t home = homeSlot(cache.pool[cache.slots[slot] - 1].mac);
        if (!mayFill(hole, home, slot)) continue;
        cache.slots[hole] = cache.slots[slot];
        cache.slots[slot] = 0;
        hole = slot;
    }
}

Index indexOf(const neighbor_host &entry) {
    return static_cast<Index>(&entry - cache.pool.data());
}

void unlinkEntry(neighbor_host &entry) {
    (entry.older == kNoEntry ? cache.oldest : cache.pool[entry.older].newer) = entry.newer;
    (entry.newer == kNoEntry ? cache.newest : cache.pool[entry.newer].older) = entry.older;
}

void linkNewest(neighbor_host &entry) {
    entry.older = cache.newest;
    entry.newer = kNoEntry;
    (cache.newest == kNoEntry ? cache.oldest : cache.pool[cache.newest].newer) = indexOf(entry);
    cache.newest = indexOf(entry);
}

// Out of the index and the sighting order; the caller reuses or frees it.
void forget(neighbor_host &entry) {
    clearSlot(probe(entry.mac));
    unlinkEntry(entry);
}

void removeEntry(neighbor_host &entry) {
    forget(entry);
    entry.newer = cache.freeList;
    cache.freeList = indexOf(entry);
}

// A free pool entry; when there is none, the least recently seen one is replaced.
neighbor_host &takeEntry() {
    if (cache.freeList != kNoEntry) {
        neighbor_host &entry = cache.pool[cache.freeList];
        cache.freeList = entry.newer;
        return entry;
    }
    if (cache.highWater < kNeighborCapacity) return cache.pool[cache.highWater++];
    neighbor_host &oldest = cache.pool[cache.oldest];
    forget(oldest);
    ++cache.evictedSinceLog;
    return oldest;
}

// A new, zero-filled entry for MAC, which the cache does not hold.
neighbor_host &addEntry(const uint8_t *mac) {
    neighbor_host &entry = takeEntry();
    std::memset(&entry, 0, sizeof entry);
    std::memcpy(entry.mac, mac, kMacOctets);
    // Probed after taking the entry: replacing one may have shifted MAC's probe run.
    cache.slots[probe(mac)] = static_cast<Index>(indexOf(entry) + 1);
    linkNewest(entry);
    return entry;
}

// How many entries were replaced since the last line, when a line is due (else 0).
unsigned takeEvictionReport(int64_t now) {
    if (cache.evictedSinceLog == 0) return 0;
    if (cache.evictionLogged && now - cache.lastEvictionLog < kNeighborEvictionLogIntervalSec)
        return 0;
    cache.evictionLogged = true;
    cache.lastEvictionLog = now;
    unsigned evicted = cache.evictedSinceLog;
    cache.evictedSinceLog = 0;
    return evicted;
}

// After a flush the cache starts afresh, and so does its next report.
void forgetEvictionReports() {
    CacheLock lock;
    cache.evictedSinceLog = 0;
    cache.evictionLogged = false;
}

bool isUsableAddress(uint32_t ip) {
    return ip != 0 && (ntohl(ip) & kPrefix16Mask) != kLinkLocalPrefix;
}

// A name from the LAN is stored only if it is printable text throughout: no control
// bytes, no line ends, nothing above 0x7E.
bool isStorableName(std::string_view name) {
    return isPrintableString(name) && name.find_first_of("\r\n") == std::string_view::npos;
}

// At most 63 characters, the rest of the field NUL-filled.
void storeName(neighbor_host &entry, const char *name) {
    size_t count = strnlen(name, kNameMaxChars);
    std::memcpy(entry.name, name, count);
    std::memset(entry.name + count, 0, kNeighborNameLen - count);
}

// Refreshes or adds MAC's entry; how many replaced entries are due to be reported.
unsigned recordSighting(const uint8_t *mac, const uint32_t *ip, const char *name) {
    CacheLock lock;
    int64_t now = monotonicSeconds();
    neighbor_host *entry = __find_neighbor_host(mac);
    if (entry) {
        unlinkEntry(*entry);
        linkNewest(*entry);
    } else {
        entry = &addEntry(mac);
    }
    if (ip) entry->ip = *ip;
    if (name) storeName(*entry, name);
    entry->last_seen = now;
    return takeEvictionReport(now);
}

// Removes up to one batch of expired entries, oldest first; false once none is left.
bool ageBatch(bool force, int64_t now) {
    CacheLock lock;
    for (size_t removed = 0; removed < kAgeingBatch; ++removed) {
        if (cache.oldest == kNoEntry) return false;
        neighbor_host &oldest = cache.pool[cache.oldest];
        if (!force && now - oldest.last_seen < kNeighborLifetimeSec) return false;
        removeEntry(oldest);
    }
    return true;
}

}  // namespace

neighbor_host *__find_neighbor_host(const uint8_t *mac) {
    Index stored = cache.slots[probe(mac)];
    return stored ? &cache.pool[stored - 1] : nullptr;
}

int update_neighbor_host(const uint8_t *mac, const uint32_t *ip, const char *name) {
    if (isZeroMac(mac)) return -1;
    if (name && !isStorableName(name)) name = nullptr;  // the address is still taken
    // Logged outside the lock: the main thread's accessors never wait on a write.
    if (unsigned evicted = recordSighting(mac, ip, name))
        SNIFFER_LOG(kSnifferError, "Neighbor cache full (%zu): %u least recently seen dropped\n",
                    kNeighborCapacity, evicted);
    return 0;
}

int getSnifferNeighborHost(const uint8_t *mac, uint32_t *ip, char *name, size_t len) {
    CacheLock lock;
    const neighbor_host *entry = __find_neighbor_host(mac);
    if (!entry || !isUsableAddress(entry->ip)) return 0;
    if (ip) *ip = entry->ip;
    // Copy-up-to-length: NUL-padded, unterminated when the name fills LEN.
    if (name) std::strncpy(name, entry->name, len);
    return 1;
}

int delSnifferNeighborHost(const uint8_t *mac) {
    CacheLock lock;
    if (neighbor_host *entry = __find_neighbor_host(mac)) removeEntry(*entry);
    return 0;
}

int aging_neighbor_host(int force) {
    const int64_t now = monotonicSeconds();
    while (ageBatch(force != 0, now)) {
    }
    if (force) forgetEvictionReports();
    return 0;
}

int dump_neighbor_host() {
    CacheLock lock;
    int64_t now = monotonicSeconds();
    logPlain("### Neighbor Host:\n");
    for (Index at = cache.oldest; at != kNoEntry; at = cache.pool[at].newer) {
        const neighbor_host &entry = cache.pool[at];
        const auto *ip = reinterpret_cast<const uint8_t *>(&entry.ip);
        int left = static_cast<int>(entry.last_seen + kNeighborLifetimeSec - now);
        logPlain("    HOST %02X%02X%02X%02X%02X%02X IP %u.%u.%u.%u timeout %4d NAME %s\n",
                 entry.mac[0], entry.mac[1], entry.mac[2], entry.mac[3], entry.mac[4], entry.mac[5],
                 ip[0], ip[1], ip[2], ip[3], left, entry.name);
    }
    logPlain("\n");
    return 0;
}
