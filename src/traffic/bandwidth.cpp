#include "traffic/bandwidth.h"

#include <cstring>

lanHostBw_t lanHostBw[kHostPoolSize];
uint32_t bandwidthInterval = 0;
int64_t nextBandwidthTime = 0;

// Sampling arrives with traffic accounting; until then rates stay 0.
void getAndCalcLanHostCurrBandwidth(uint8_t /*enable*/, uint8_t /*force*/) {}

void refreshReportedFields(hostEntry *entry, uint32_t uptime) {
    lanHostInfo_t &host = entry->lanHost;
    const lanHostBw_t &bw = lanHostBw[hostSlot(entry)];
    host.onLineTime = uptime - entry->startOnLine;
    host.upRate = bw.upRate;
    host.downRate = bw.downRate;
    host.rxBytes = bw.rxBytes;
    host.txBytes = bw.txBytes;
}

void bandwidthReset() { std::memset(lanHostBw, 0, sizeof lanHostBw); }
