// Per-host traffic counters and the up and down rates derived from them.
#pragma once

#include <cstdint>

#include "hosts/host_table.h"

// One per table slot, same index; never cleared, so a reused slot's first sample
// is measured against what the previous host left.
struct lanHostBw_t {
    int64_t lastSec;
    int64_t lastUsec;
    uint32_t upRate;    // units of 1024 bit/s
    uint32_t downRate;  // units of 1024 bit/s
    uint64_t rxBytes;
    uint64_t txBytes;
};

extern lanHostBw_t lanHostBw[kHostPoolSize];
extern uint32_t bandwidthInterval;  // seconds between two samples; 0 = only when forced
extern int64_t nextBandwidthTime;   // wall-clock second the next sample is due

void getAndCalcLanHostCurrBandwidth(uint8_t enable, uint8_t force);

// Brings a record about to leave the daemon up to date: online time from UPTIME
// and the rates and counts of its slot's traffic record.
void refreshReportedFields(hostEntry *entry, uint32_t uptime);

// Clears every traffic record (tests only; the daemon never clears them).
void bandwidthReset();
