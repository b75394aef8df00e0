// Per-host traffic counters and the up and down rates derived from them.
#pragma once

#include <cstddef>
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

// Positions in the pair getLanHostHpcCounter fills (the counter sets answer the
// other way round: {sent, received}).
inline constexpr size_t kHpcReceived = 0;
inline constexpr size_t kHpcSent = 1;

// One sampling pass over every online host when due (or when FORCE), never when
// ENABLE is 0.
void getAndCalcLanHostCurrBandwidth(uint8_t enable, uint8_t force);

// PAIR = {received, sent}, the sum of every counter set that knows ENTRY.
// 0 if at least one set answered, else -1 (PAIR then all zero).
int getLanHostHpcCounter(hostEntry *entry, uint64_t pair[2]);

// Milliseconds from LAST to NOW, wrapping in 32 bits as the rate arithmetic always
// has: seconds difference x 1000, plus the microseconds difference / 1000.
int32_t elapsedMilliseconds(int64_t nowSec, int64_t nowUsec, int64_t lastSec, int64_t lastUsec);
// GROWTH bytes over ELAPSED_MS as units of 1024 bit/s; 0 when no time went by.
uint32_t rateUnits(uint64_t growth, int32_t elapsedMs);
// The rate between two cumulative counts; 0 when the count did not grow (idle or reset).
uint32_t counterRate(uint64_t previous, uint64_t current, int32_t elapsedMs);

// Brings a record about to leave the daemon up to date: online time from UPTIME
// and the rates and counts of its slot's traffic record.
void refreshReportedFields(hostEntry *entry, uint32_t uptime);

// Clears every traffic record and the schedule (tests only; the daemon never clears them).
void bandwidthReset();
