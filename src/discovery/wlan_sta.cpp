#include "discovery/wlan_sta.h"

#include <cstdlib>
#include <cstring>

wlanStaSlot wlanStaTable[kWlanSlotCount];

void resetWlanStaTable() {
    for (wlanStaSlot &slot : wlanStaTable) std::free(slot.staList);
    std::memset(wlanStaTable, 0, sizeof wlanStaTable);
}
