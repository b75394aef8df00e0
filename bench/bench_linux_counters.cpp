// The traffic counters on real nftables, in a private network namespace made at start:
// one sampling pass over 256 registered hosts (one nft listing, 256 look-ups), the
// parse of such a listing alone, and registering one host. Needs root.
#include <benchmark/benchmark.h>
#include <sched.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "platform/linux/nft_counters.h"
#include "platform/zvt.h"

namespace {

constexpr int kHosts = 256;
using Entry = std::array<uint8_t, 16>;  // a host entry begins with its MAC

Entry hostEntry(int i) {
    return {0x0a, 0x77, 0, 0, static_cast<uint8_t>(i >> 8), static_cast<uint8_t>(i & 0xff)};
}

// An empty HOSTRIX_ROOT keeps the machine's configuration file out of the way.
bool useEmptyRoot() {
    static char root[] = "/tmp/hostrix-bench-XXXXXX";
    if (!mkdtemp(root)) return false;
    setenv("HOSTRIX_ROOT", root, 1);
    std::atexit([] { (void)rmdir(root); });
    return true;
}

// The namespace, the table and its 256 hosts, once for the whole run; why not, or "".
std::string prepare() {
    if (unshare(CLONE_NEWNET) != 0) return "no private network namespace (root is needed)";
    if (!useEmptyRoot()) return "no temporary directory";
    if (zvt_fc_host_police_control_mib_counter_init() != 0) return "nft could not make the table";
    for (int i = 0; i < kHosts; ++i) {
        Entry entry = hostEntry(i);
        if (zvt_update_lan_hpc_for_mib(entry.data(), 1) != 0) return "nft could not add a host";
    }
    return "";
}

bool ready(benchmark::State &state) {
    static const std::string problem = prepare();
    if (!problem.empty()) state.SkipWithError(problem.c_str());
    return problem.empty();
}

void BM_SamplingPass(benchmark::State &state) {
    if (!ready(state)) return;
    int answered = 0;
    for (auto _ : state) {
        answered = 0;
        zvt_host_police_control_mib_counter_get_begin();
        for (int i = 0; i < kHosts; ++i) {
            Entry entry = hostEntry(i);
            uint64_t pair[2];
            answered += zvt_host_police_control_mib_counter_get(entry.data(), pair) == 0;
        }
        zvt_host_police_control_mib_counter_get_end();
    }
    state.counters["answered"] = answered;
}
BENCHMARK(BM_SamplingPass)->Unit(benchmark::kMillisecond);

// What the pass spends outside nft: a listing of 256 hosts in both sets.
void BM_ParseListing(benchmark::State &state) {
    std::string sets;
    for (const char *name : {"tx", "rx"}) {
        sets += std::string(R"(, {"set": {"family": "bridge", "name": ")") + name +
                R"(", "table": "hostrix", "type": "ether_addr", "handle": 4, "elem": [)";
        for (int i = 0; i < kHosts; ++i) {
            char elem[128];
            std::snprintf(elem, sizeof elem,
                          R"(%s{"elem": {"val": "0a:77:00:00:%02x:%02x", )"
                          R"("counter": {"packets": 12345, "bytes": 987654321}}})",
                          i ? ", " : "", i >> 8, i & 0xff);
            sets += elem;
        }
        sets += R"(], "stmt": [{"counter": null}]}})";
    }
    const std::string json = R"({"nftables": [{"metainfo": {"version": "1.0.6"}})" + sets + "]}";
    size_t hosts = 0;
    for (auto _ : state) hosts = parseNftCounterListing(json).size();
    state.counters["hosts"] = static_cast<double>(hosts);
    state.counters["bytes"] = static_cast<double>(json.size());
}
BENCHMARK(BM_ParseListing)->Unit(benchmark::kMicrosecond);

// A host entering and leaving the table: two runs of nft.
void BM_RegisterAndRemoveHost(benchmark::State &state) {
    if (!ready(state)) return;
    Entry entry = hostEntry(kHosts);
    for (auto _ : state) {
        zvt_update_lan_hpc_for_mib(entry.data(), 1);
        zvt_update_lan_hpc_for_mib(entry.data(), 0);
    }
}
BENCHMARK(BM_RegisterAndRemoveHost)->Unit(benchmark::kMillisecond);

}  // namespace
