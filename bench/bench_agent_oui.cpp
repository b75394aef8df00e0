// The agent's vendor lookup over the real registry file that the build made from
// ieee-data (three binary searches, longest prefix first), and its load (a mapping).
#include <benchmark/benchmark.h>

#include <random>

#include "oui.h"

namespace {

std::string ouiFile() {
    return HOSTRIX_OUI_FILE;
}

void lookupRandomMacs(benchmark::State &state) {
    OuiDb db;
    if (!db.load(ouiFile())) {
        state.SkipWithError("no vendor file; build hostrix-agent first");
        return;
    }
    std::mt19937 random(7);
    std::vector<std::array<uint8_t, 6>> macs(4096);
    for (auto &mac : macs)
        for (auto &byte : mac) byte = static_cast<uint8_t>(random() & 0xfc);  // universal, unicast
    size_t i = 0, found = 0;
    for (auto _ : state) {
        found += !db.lookup(macs[i++ % macs.size()]).empty();
        benchmark::DoNotOptimize(found);
    }
    state.counters["file_bytes"] = static_cast<double>(db.bytes());
    state.counters["prefixes"] = static_cast<double>(db.entries());
}
BENCHMARK(lookupRandomMacs);

void loadFile(benchmark::State &state) {
    for (auto _ : state) {
        OuiDb db;
        benchmark::DoNotOptimize(db.load(ouiFile()));
    }
}
BENCHMARK(loadFile);

}  // namespace
