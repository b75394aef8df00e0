// Snapshot of the Wi-Fi stations of the ten wireless interfaces (two radios, each
// with its root and four virtual access points), rebuilt once per discovery cycle,
// and the link attributes (rates, signal, SSID or port speed) it gives a host.
#pragma once

#include <cstdint>

#include "hosts/lanhost.h"
#include "platform/mib.h"

inline constexpr int kWlanSlotCount = 10;
inline constexpr int kWlanIfnameLen = 16;
inline constexpr int kWlanIfPerRadio = 5;  // root and vap0..vap3

struct wlanStaSlot {
    char name[kWlanIfnameLen + 1];
    uint32_t staNum;
    wlStaInfo *staList;  // heap array of staNum records, owned by the slot
};

extern wlanStaSlot wlanStaTable[kWlanSlotCount];

// Name of slot RADIO * 5 + K: the radio's root (K 0) or "%s-vap%d" with K - 1,
// cut to 16 characters.
void wlanSlotName(int radio, int k, char (&name)[kWlanIfnameLen + 1]);

int collectWlanStaInfo();
int checkWlanFuncoff(const char *ifname);
int updateStaInfo(hostEntry *entry);

// Frees every slot's station list and zero-fills the table.
void resetWlanStaTable();
