// Snapshot of the Wi-Fi stations of the ten wireless interfaces (two radios, each
// with its root and four virtual access points), rebuilt once per discovery cycle.
#pragma once

#include <cstdint>

#include "platform/mib.h"

inline constexpr int kWlanSlotCount = 10;
inline constexpr int kWlanIfnameLen = 16;

struct wlanStaSlot {
    char name[kWlanIfnameLen + 1];
    uint32_t staNum;
    wlStaInfo *staList;  // heap array of staNum records, owned by the slot
};

extern wlanStaSlot wlanStaTable[kWlanSlotCount];

// Frees every slot's station list and zero-fills the table.
void resetWlanStaTable();
