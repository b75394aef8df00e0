#include "sniffer/neighbor_cache.h"

#include <arpa/inet.h>
#include <pthread.h>

#include <cstdlib>
#include <cstring>

#include "core/clock.h"
#include "core/log.h"
#include "platform/mib.h"

namespace {

constexpr size_t kMacOctets = 6;
constexpr size_t kNameMaxChars = kNeighborNameLen - 1;
// 169.254.0.0/16: link-local addresses a host picks for itself, never worth reporting.
constexpr uint32_t kLinkLocalPrefix = 0xa9fe0000;
constexpr uint32_t kPrefix16Mask = 0xffff0000;

TAILQ_HEAD(neighbor_list, neighbor_host);
neighbor_list neighbors = TAILQ_HEAD_INITIALIZER(neighbors);
// A plain default mutex: the sniffer thread's cancellation path must be able to
// release it without knowing anything beyond pthreads.
pthread_mutex_t cacheMutex = PTHREAD_MUTEX_INITIALIZER;

// Holds the cache lock for one scope. No cancellation point is reached while it is
// held by the sniffer thread (lookups, calloc and the clock only).
class CacheLock {
   public:
    CacheLock() { pthread_mutex_lock(&cacheMutex); }
    ~CacheLock() { pthread_mutex_unlock(&cacheMutex); }
    CacheLock(const CacheLock &) = delete;
    CacheLock &operator=(const CacheLock &) = delete;
};

bool isUsableAddress(uint32_t ip) {
    return ip != 0 && (ntohl(ip) & kPrefix16Mask) != kLinkLocalPrefix;
}

// At most 63 characters, the rest of the field NUL-filled.
void storeName(neighbor_host *entry, const char *name) {
    size_t count = strnlen(name, kNameMaxChars);
    std::memcpy(entry->name, name, count);
    std::memset(entry->name + count, 0, kNeighborNameLen - count);
}

void removeEntry(neighbor_host *entry) {
    TAILQ_REMOVE(&neighbors, entry, entries);
    std::free(entry);
}

}  // namespace

neighbor_host *__find_neighbor_host(const uint8_t *mac) {
    neighbor_host *entry = nullptr;
    TAILQ_FOREACH(entry, &neighbors, entries) {
        if (std::memcmp(entry->mac, mac, kMacOctets) == 0) return entry;
    }
    return nullptr;
}

int update_neighbor_host(const uint8_t *mac, const uint32_t *ip, const char *name) {
    if (isZeroMac(mac)) return -1;
    CacheLock lock;
    neighbor_host *entry = __find_neighbor_host(mac);
    bool isNew = entry == nullptr;
    if (isNew) {
        // The list owns its entries from the insertion below until removeEntry.
        entry = static_cast<neighbor_host *>(std::calloc(1, sizeof *entry));
        if (!entry) return 0;  // this sighting is lost; the next one tries again
    }
    std::memcpy(entry->mac, mac, kMacOctets);
    if (ip) entry->ip = *ip;
    if (name) storeName(entry, name);
    entry->last_seen = monotonicSeconds();
    if (isNew) TAILQ_INSERT_TAIL(&neighbors, entry, entries);
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
    if (neighbor_host *entry = __find_neighbor_host(mac)) removeEntry(entry);
    return 0;
}

int aging_neighbor_host(int force) {
    CacheLock lock;
    int64_t now = monotonicSeconds();
    neighbor_host *entry = TAILQ_FIRST(&neighbors);
    while (entry) {
        neighbor_host *next = TAILQ_NEXT(entry, entries);
        if (force || now - entry->last_seen >= kNeighborLifetimeSec) removeEntry(entry);
        entry = next;
    }
    return 0;
}

int dump_neighbor_host() {
    CacheLock lock;
    int64_t now = monotonicSeconds();
    logPlain("### Neighbor Host:\n");
    const neighbor_host *entry = nullptr;
    TAILQ_FOREACH(entry, &neighbors, entries) {
        const auto *ip = reinterpret_cast<const uint8_t *>(&entry->ip);
        int left = static_cast<int>(entry->last_seen + kNeighborLifetimeSec - now);
        logPlain("    HOST %02X%02X%02X%02X%02X%02X IP %u.%u.%u.%u timeout %4d NAME %s\n",
                 entry->mac[0], entry->mac[1], entry->mac[2], entry->mac[3], entry->mac[4],
                 entry->mac[5], ip[0], ip[1], ip[2], ip[3], left, entry->name);
    }
    logPlain("\n");
    return 0;
}
