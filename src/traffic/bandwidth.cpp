#include "traffic/bandwidth.h"

#include <cstring>
#include <sys/time.h>

#include "core/log.h"
#include "platform/mib.h"
#include "platform/os.h"
#include "platform/zvt.h"

lanHostBw_t lanHostBw[kHostPoolSize];
uint32_t bandwidthInterval = 0;
int64_t nextBandwidthTime = 0;

namespace {

using CounterGet = int (*)(void *, uint64_t *);
constexpr CounterGet kCounterSets[] = {zvt_host_police_control_mib_counter_get,
                                       zvt_fc_host_police_control_mib_counter_get};
// Order of a counter set's own answer.
constexpr size_t kSetSent = 0;
constexpr size_t kSetReceived = 1;

// Whether a pass is due now; moves the schedule when it is. An interval of 0 never
// falls due, and a forced pass restarts the schedule from now.
bool samplingDue(int64_t nowSec, uint8_t force) {
    bool scheduled = nowSec > nextBandwidthTime && bandwidthInterval != 0;
    if (!scheduled && !force) return false;
    nextBandwidthTime = nowSec + bandwidthInterval;
    return true;
}

bool isSampled(const hostEntry &entry) {
    return entry.valid != 0 && !isZeroMac(entry.lanHost.mac);
}

void sampleHost(hostEntry &entry, lanHostBw_t &bw) {
    timeval now{};
    // Without a timestamp the next elapsed time would be wrong too: skip this host.
    if (os_gettimeofday(&now) != 0) return;
    uint64_t counts[2];
    if (getLanHostHpcCounter(&entry, counts) != 0) return;
    int32_t elapsed = elapsedMilliseconds(now.tv_sec, now.tv_usec, bw.lastSec, bw.lastUsec);
    bw.lastSec = now.tv_sec;
    bw.lastUsec = now.tv_usec;
    bw.upRate = counterRate(bw.txBytes, counts[kHpcSent], elapsed);
    bw.txBytes = counts[kHpcSent];
    bw.downRate = counterRate(bw.rxBytes, counts[kHpcReceived], elapsed);
    bw.rxBytes = counts[kHpcReceived];
}

}  // namespace

int32_t elapsedMilliseconds(int64_t nowSec, int64_t nowUsec, int64_t lastSec, int64_t lastUsec) {
    // Unsigned throughout so that wrapping is defined; only the sum is read as signed.
    uint32_t seconds = static_cast<uint32_t>(static_cast<uint64_t>(nowSec) -
                                             static_cast<uint64_t>(lastSec));
    int32_t usecs = static_cast<int32_t>(static_cast<uint32_t>(nowUsec) -
                                         static_cast<uint32_t>(lastUsec));
    uint32_t ms = seconds * 1000u + static_cast<uint32_t>(usecs / 1000);
    return static_cast<int32_t>(ms);
}

uint32_t rateUnits(uint64_t growth, int32_t elapsedMs) {
    if (elapsedMs <= 0) return 0;
    uint64_t bytesPerSecond = growth * 1000u / static_cast<uint64_t>(elapsedMs);
    return static_cast<uint32_t>(bytesPerSecond >> 7);  // bytes/s / 128 = 1024 bit/s
}

uint32_t counterRate(uint64_t previous, uint64_t current, int32_t elapsedMs) {
    return current > previous ? rateUnits(current - previous, elapsedMs) : 0;
}

int getLanHostHpcCounter(hostEntry *entry, uint64_t pair[2]) {
    pair[kHpcReceived] = 0;
    pair[kHpcSent] = 0;
    int result = -1;
    for (CounterGet get : kCounterSets) {
        uint64_t set[2] = {0, 0};
        if (get(entry, set) != 0) continue;
        pair[kHpcSent] += set[kSetSent];
        pair[kHpcReceived] += set[kSetReceived];
        result = 0;
    }
    return result;
}

void getAndCalcLanHostCurrBandwidth(uint8_t enable, uint8_t force) {
    if (enable == 0) return;
    timeval now{};
    if (os_gettimeofday(&now) != 0) {
        logPlain("[%s %d]: exec gettimeofday failed.\n\n", __func__, __LINE__);
        return;
    }
    if (now.tv_sec > nextBandwidthTime)
        HX_DBG(DBG_TRACE, "[%s %d]:interval = %d.\n", __func__, __LINE__,
               static_cast<int>(bandwidthInterval));
    if (!samplingDue(now.tv_sec, force)) return;
    zvt_host_police_control_mib_counter_get_begin();
    for (uint32_t slot = 0; slot < kHostPoolSize; ++slot)
        if (isSampled(hostPool[slot])) sampleHost(hostPool[slot], lanHostBw[slot]);
    zvt_host_police_control_mib_counter_get_end();
}

void refreshReportedFields(hostEntry *entry, uint32_t uptime) {
    lanHostInfo_t &host = entry->lanHost;
    const lanHostBw_t &bw = lanHostBw[hostSlot(entry)];
    host.onLineTime = uptime - entry->startOnLine;
    host.upRate = bw.upRate;
    host.downRate = bw.downRate;
    host.rxBytes = bw.rxBytes;
    host.txBytes = bw.txBytes;
}

void bandwidthReset() {
    std::memset(lanHostBw, 0, sizeof lanHostBw);
    nextBandwidthTime = 0;
}
