// The traffic counters on real nf_tables over netlink, in a private network namespace
// made at start: one sampling pass over 256 registered hosts (two set dumps, 256
// look-ups), the decoding of such dumps alone, and one transaction registering 100
// hosts. Needs root.
#include <benchmark/benchmark.h>
#include <sched.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "platform/linux/nft_counters.h"
#include "platform/linux/nft_netlink.h"
#include "platform/zvt.h"

namespace {

constexpr int kHosts = 256;
constexpr int kBatchHosts = 100;
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
    if (zvt_fc_host_police_control_mib_counter_init() != 0) return "no table: see stderr";
    for (int i = 0; i < kHosts; ++i) {
        Entry entry = hostEntry(i);
        if (zvt_update_lan_hpc_for_mib(entry.data(), 1) != 0) return "a host was not queued";
    }
    if (zvt_commit_lan_hpc() != 0) return "the hosts were not registered";
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
BENCHMARK(BM_SamplingPass)->Unit(benchmark::kMicrosecond);

struct Datagram {
    std::vector<uint8_t> bytes;
    uint32_t sequence;
};

// The kernel's answers to both dumps of the 256-host table, as received.
std::vector<Datagram> recordDumps() {
    std::vector<Datagram> datagrams;
    const UniqueFd sock = openNftSocket();
    uint32_t sequence = 1;
    for (NftSet set : {NftSet::Tx, NftSet::Rx}) {
        ++sequence;
        (void)nftDumpSet(sock, set, sequence, [&](std::span<const uint8_t> datagram) {
            datagrams.push_back({{datagram.begin(), datagram.end()}, sequence});
            std::vector<NftSetElement> ignored;
            return decodeNftElementDump(datagram, sequence, ignored);
        });
    }
    return datagrams;
}

// What the pass spends outside the kernel: decoding and merging both dumps.
void BM_DecodeDumps(benchmark::State &state) {
    if (!ready(state)) return;
    const std::vector<Datagram> datagrams = recordDumps();
    size_t hosts = 0;
    size_t bytes = 0;
    for (const Datagram &d : datagrams) bytes += d.bytes.size();
    for (auto _ : state) {
        std::vector<NftSetElement> elements;
        for (const Datagram &d : datagrams)
            (void)decodeNftElementDump(d.bytes, d.sequence, elements);
        hosts = mergeNftElements(std::move(elements)).size();
    }
    state.counters["hosts"] = static_cast<double>(hosts);
    state.counters["bytes"] = static_cast<double>(bytes);
}
BENCHMARK(BM_DecodeDumps)->Unit(benchmark::kMicrosecond);

void queueHosts(int first, int count, int on) {
    for (int i = first; i < first + count; ++i) {
        Entry entry = hostEntry(i);
        zvt_update_lan_hpc_for_mib(entry.data(), on);
    }
}

// 100 new hosts queued and sent in one transaction; they leave again untimed.
void BM_RegisterHundredHosts(benchmark::State &state) {
    if (!ready(state)) return;
    int failed = 0;
    for (auto _ : state) {
        queueHosts(kHosts, kBatchHosts, 1);
        failed += zvt_commit_lan_hpc() != 0;
        state.PauseTiming();
        queueHosts(kHosts, kBatchHosts, 0);
        failed += zvt_commit_lan_hpc() != 0;
        state.ResumeTiming();
    }
    state.counters["failed"] = failed;
}
BENCHMARK(BM_RegisterHundredHosts)->Unit(benchmark::kMicrosecond);

}  // namespace
