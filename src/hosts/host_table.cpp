#include "hosts/host_table.h"

#include <cstring>

#include "core/log.h"
#include "discovery/wlan_sta.h"
#include "hosts/departures.h"
#include "platform/mib.h"
#include "platform/zvt.h"

hostEntry hostPool[kHostPoolSize];
hostEntry *hashHeads[kHashChainCount];
hostEntry *freeList = nullptr;
uint32_t lanHostNum = 0;
uint32_t maxLanHostNum = 0;
uint32_t maxControlledNum = 0;
uint32_t controlledNum = 0;

namespace {

// Offline, not blocked and no arrival report pending: the entry may be reused.
bool isRecyclable(const hostEntry *entry) {
    const lanHostInfo_t &host = entry->lanHost;
    return entry->valid == 0 && host.internetAccess != kInternetAccessBlocked &&
           host.firstConnect == 0;
}

void logChainHead(const char *func, int line, const hostEntry *entry) {
    const lanHostInfo_t &host = entry->lanHost;
    HX_DBG(DBG_FREE_LIST,
           "[%s %d] valid=%d arpRetryCnt=%d internetAccess=%d disConnect=%d firstConnect=%d\n",
           func, line, entry->valid, host.arpRetryCnt, host.internetAccess, host.disConnect,
           host.firstConnect);
}

// Unlinks *link (a chain head or a predecessor's next) and returns its entry to the pool.
void releaseLinked(hostEntry **link) {
    hostEntry *entry = *link;
    *link = entry->next;
    entry->next = nullptr;
    updateLanHostHpc(entry, 0);
    insertIntoFreeList(entry);
}

void recycleChain(hostEntry **head) {
    if (*head) logChainHead(__func__, __LINE__, *head);
    while (*head && isRecyclable(*head)) {
        HX_DBG(DBG_FREE_LIST, "[%s %d]recycle host " MAC_FMT "\n", __func__, __LINE__,
               MAC_ARGS((*head)->lanHost.mac));
        releaseLinked(head);
    }
    for (hostEntry *prev = *head; prev && prev->next;) {
        logChainHead(__func__, __LINE__, prev);
        if (!isRecyclable(prev->next)) {
            prev = prev->next;
            continue;
        }
        HX_DBG(DBG_FREE_LIST, "[%s %d]recycle host " MAC_FMT "\n", __func__, __LINE__,
               MAC_ARGS(prev->next->lanHost.mac));
        releaseLinked(&prev->next);
    }
}

// eth0 names eth0 and its VLAN sub-interfaces (eth0.10), not eth01 or veth0.
bool ifnameMatches(const char *ifName, const char *name, size_t len) {
    return std::strncmp(ifName, name, len) == 0 && (ifName[len] == '\0' || ifName[len] == '.');
}

}  // namespace

uint32_t hostHash(const uint8_t *mac) {
    return (mac[0] ^ mac[1] ^ mac[2] ^ mac[3] ^ mac[4] ^ mac[5]) & (kHashChainCount - 1);
}

void initHostrixData() {
    freeList = nullptr;
    std::memset(hostPool, 0, sizeof hostPool);
    for (hostEntry &entry : hostPool) freeHostEntry(&entry);
    std::memset(hashHeads, 0, sizeof hashHeads);
    resetWlanStaTable();
    resetDepartures();
    logPlain("[%s %d]:init HostrixData.\n", __func__, __LINE__);
}

hostEntry *getHostrixByMac(const uint8_t *mac) {
    if (!mac || isZeroMac(mac)) return nullptr;
    uint32_t h = hostHash(mac);
    HX_DBG(DBG_LOOKUP, "[%s %d]:hash=%d, target pMac(" MAC_FMT ")\n", __func__, __LINE__, h,
           MAC_ARGS(mac));
    for (hostEntry *entry = hashHeads[h]; entry; entry = entry->next) {
        if (isZeroMac(entry->lanHost.mac)) continue;
        if (macAddrCmp(entry->lanHost.mac, mac) == 0) {
            HX_DBG(DBG_LOOKUP, "[%s %d]:have searched lan host:mac.octet(" MAC_FMT ")\n",
                   __func__, __LINE__, MAC_ARGS(entry->lanHost.mac));
            return entry;
        }
    }
    HX_DBG(DBG_LOOKUP, "[%s %d]: no found!!\n", __func__, __LINE__);
    return nullptr;
}

hostEntry *addNewToHashList(hostEntry *entry, const uint8_t *mac) {
    if (!entry || !mac || isZeroMac(mac)) return nullptr;
    uint32_t h = hostHash(mac);
    HX_DBG(DBG_NEW_HOST, "[%s %d]:new Mac, hash=%d, pMac(" MAC_FMT ")\n", __func__, __LINE__, h,
           MAC_ARGS(mac));
    entry->next = hashHeads[h];
    hashHeads[h] = entry;
    return entry;
}

hostEntry *getFreeFromFreeList() {
    if (lanHostNum >= maxLanHostNum) return nullptr;
    hostEntry *entry = freeList;
    if (entry) {
        freeList = entry->next;
        entry->next = nullptr;
        ++lanHostNum;
    }
    HX_DBG(DBG_FREE_LIST, "[%s %d] lanHostNum=%d\n", __func__, __LINE__, lanHostNum);
    return entry;
}

void insertIntoFreeList(hostEntry *entry) {
    if (!entry) {
        logPlain("=========>>%s %d:error\n", __func__, __LINE__);
        return;
    }
    std::memset(entry, 0, sizeof *entry);
    entry->next = freeList;
    freeList = entry;
    if (lanHostNum > 0) --lanHostNum;
}

hostEntry *freeHostEntry(hostEntry *entry) {
    if (entry) insertIntoFreeList(entry);
    return entry;
}

void RecycleInvalidHostrix() {
    HX_DBG(DBG_FREE_LIST, "[%s %d]\n", __func__, __LINE__);
    for (hostEntry *&head : hashHeads) recycleChain(&head);
}

int RemoveHostrixByIfname(const char *name) {
    if (!name || !*name) return 0;
    size_t len = std::strlen(name);
    int removed = 0;
    for (hostEntry *&head : hashHeads) {
        for (hostEntry **link = &head; *link;) {
            if (!ifnameMatches((*link)->lanHost.ifName, name, len)) {
                link = &(*link)->next;
                continue;
            }
            releaseLinked(link);
            ++removed;
        }
    }
    HX_DBG(DBG_FREE_LIST, "[%s] remove %d lanHost\n", __func__, removed);
    return removed;
}

int setMaxLanHostNum(uint32_t n) {
    if (n > kHostPoolSize) return -1;
    maxLanHostNum = n;
    if (lanHostNum <= n) return 0;
    RecycleInvalidHostrix();
    // Recycling could not make room: drop the whole table; discovery finds the
    // online hosts again as far as the new maximum allows.
    if (lanHostNum > n) initHostrixData();
    return 0;
}

int setMaxControlledNum(uint32_t n) {
    if (n > kHostPoolSize) return -1;
    maxControlledNum = n;
    return 0;
}

void setHostControlled(hostEntry *entry, uint8_t on) {
    uint8_t flag = on ? 1 : 0;
    if (entry->lanHost.controlled == flag) return;
    entry->lanHost.controlled = flag;
    if (flag) {
        ++controlledNum;
    } else {
        --controlledNum;
    }
}

int updateLanHostHpc(hostEntry *entry, int added) {
    zvt_fc_update_lan_hpc_for_mib(entry, added);
    zvt_update_lan_hpc_for_mib(entry, added);
    return 0;
}
