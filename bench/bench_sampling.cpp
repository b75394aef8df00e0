// One forced sampling pass over a full table: 256 online hosts, both counter sets
// answering for each. The main loop runs one such pass per interval and per SIGUSR2.
#include <benchmark/benchmark.h>

#include "hosts/host_table.h"
#include "platform/fake/fake_platform.h"
#include "traffic/bandwidth.h"

namespace {

fake::Mac macOf(uint32_t i) {
    return fake::mac(0x02, 0x11, 0x22, 0, static_cast<uint8_t>(i >> 8), static_cast<uint8_t>(i));
}

void fillTableWithCountedHosts() {
    fake::reset();
    initHostrixData();
    bandwidthReset();
    setMaxLanHostNum(kHostPoolSize);
    for (uint32_t i = 0; i < kHostPoolSize; ++i) {
        hostEntry *entry = getFreeFromFreeList();
        fake::Mac mac = macOf(i);
        std::copy(mac.begin(), mac.end(), entry->lanHost.mac);
        entry->valid = 1;
        addNewToHashList(entry, entry->lanHost.mac);
        fake::state().counters[mac] = {1000u * i, 2000u * i};
        fake::state().fcCounters[mac] = {3000u * i, 4000u * i};
    }
}

void BM_ForcedPassFullTable(benchmark::State &state) {
    fillTableWithCountedHosts();
    for (auto _ : state) {
        ++fake::state().wall;  // a fresh second each pass, so every host gets an elapsed time
        getAndCalcLanHostCurrBandwidth(1, 1);
        benchmark::DoNotOptimize(lanHostBw[kHostPoolSize - 1].txBytes);
    }
    state.counters["hosts"] = kHostPoolSize;
}
BENCHMARK(BM_ForcedPassFullTable)->Unit(benchmark::kMicrosecond);

}  // namespace
