// The host table: a fixed pool of 256 entries, 64 MAC hash chains and a free list.
// Allocation-free; used by the main thread only.
#pragma once

#include <cstdint>

#include "hosts/lanhost.h"

inline constexpr uint32_t kHostPoolSize = 256;
inline constexpr uint32_t kHashChainCount = 64;

extern hostEntry hostPool[kHostPoolSize];
extern hostEntry *hashHeads[kHashChainCount];
extern hostEntry *freeList;
extern uint32_t lanHostNum;
extern uint32_t maxLanHostNum;
extern uint32_t maxControlledNum;
extern uint32_t controlledNum;

uint32_t hostHash(const uint8_t *mac);
void initHostrixData();
hostEntry *getHostrixByMac(const uint8_t *mac);
hostEntry *addNewToHashList(hostEntry *entry, const uint8_t *mac);
hostEntry *getFreeFromFreeList();
void insertIntoFreeList(hostEntry *entry);
hostEntry *freeHostEntry(hostEntry *entry);
void RecycleInvalidHostrix();
int RemoveHostrixByIfname(const char *name);
int setMaxLanHostNum(uint32_t n);
int setMaxControlledNum(uint32_t n);
void setHostControlled(hostEntry *entry, uint8_t on);
int updateLanHostHpc(hostEntry *entry, int added);

// Slot index of ENTRY in hostPool (also the index of its traffic record).
inline uint32_t hostSlot(const hostEntry *entry) {
    return static_cast<uint32_t>(entry - hostPool);
}
