// Host table costs with a full table: lookup by MAC (every command and every
// forwarding entry of a discovery cycle does one) and a recycling sweep.
#include <benchmark/benchmark.h>

#include "hosts/host_table.h"
#include "platform/fake/fake_platform.h"

namespace {

// Distinct MACs spread like a real LAN's: one vendor prefix, scattered device parts.
fake::Mac macOf(uint32_t i) {
    uint32_t device = (i + 1) * 2654435761u;
    return fake::mac(0x02, 0x11, 0x22, static_cast<uint8_t>(device >> 24),
                     static_cast<uint8_t>(device >> 16), static_cast<uint8_t>(device >> 8));
}

void fillTable(uint32_t count) {
    fake::reset();
    initHostrixData();
    setMaxLanHostNum(kHostPoolSize);
    for (uint32_t i = 0; i < count; ++i) {
        hostEntry *entry = getFreeFromFreeList();
        fake::Mac mac = macOf(i);
        std::copy(mac.begin(), mac.end(), entry->lanHost.mac);
        entry->valid = 1;
        entry->lanHost.internetAccess = kInternetAccessDefault;
        addNewToHashList(entry, entry->lanHost.mac);
    }
}

void BM_LookupFullTable(benchmark::State &state) {
    fillTable(kHostPoolSize);
    uint32_t i = 0;
    for (auto _ : state) {
        fake::Mac mac = macOf(i++ % kHostPoolSize);
        benchmark::DoNotOptimize(getHostrixByMac(mac.data()));
    }
}
BENCHMARK(BM_LookupFullTable);

void BM_LookupMiss(benchmark::State &state) {
    fillTable(kHostPoolSize);
    fake::Mac absent = fake::mac(0x0a, 0, 0, 0, 0, 1);
    for (auto _ : state) benchmark::DoNotOptimize(getHostrixByMac(absent.data()));
}
BENCHMARK(BM_LookupMiss);

void BM_RecycleSweepNothingToFree(benchmark::State &state) {
    fillTable(kHostPoolSize);
    for (auto _ : state) RecycleInvalidHostrix();
}
BENCHMARK(BM_RecycleSweepNothingToFree);

}  // namespace
