// Per-host traffic counters and the up and down rates derived from them.
#pragma once

#include <cstdint>

extern uint32_t bandwidthInterval;  // seconds between two samples; 0 = only when forced
extern int64_t nextBandwidthTime;   // wall-clock second the next sample is due

void getAndCalcLanHostCurrBandwidth(uint8_t enable, uint8_t force);
