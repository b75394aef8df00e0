// The neighbour cache at its bound of 4096 entries: refreshing a known MAC, the main
// thread's lookup, and a flood of ARP replies with made-up MACs, each of which adds
// two entries and so replaces the two least recently seen ones.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>

#include <array>
#include <cstdint>
#include <random>
#include <vector>

#include "platform/fake/fake_platform.h"
#include "sniffer/neighbor_cache.h"
#include "sniffer/packet_parser.h"
#include "sniffer/sniffer.h"

namespace {

using Mac = std::array<uint8_t, 6>;
constexpr size_t kArpFrameLen = 42;
constexpr size_t kSenderMac = 22;
constexpr size_t kTargetMac = 32;

Mac macOf(uint32_t n) {
    return {0x02, 0x11, uint8_t(n >> 16), uint8_t(n >> 8), uint8_t(n), 0x01};
}

// A full cache of the MACs 0..4095, with the sniffer's lines silenced.
void fillCache() {
    fake::reset();
    setSnifferMonitorLogLevel(0);
    aging_neighbor_host(1);
    for (uint32_t n = 0; n < kNeighborCapacity; ++n) {
        const uint32_t ip = htonl(0x0a000000 + n);
        update_neighbor_host(macOf(n).data(), &ip, "device");
    }
}

void BM_RefreshKnownMac(benchmark::State &state) {
    fillCache();
    const uint32_t ip = htonl(0x0a000001);
    uint32_t n = 0;
    for (auto _ : state) {
        update_neighbor_host(macOf(n).data(), &ip, nullptr);
        n = (n + 1) % kNeighborCapacity;
    }
    state.SetItemsProcessed(state.iterations());
    aging_neighbor_host(1);
}
BENCHMARK(BM_RefreshKnownMac);

void BM_LookupKnownMac(benchmark::State &state) {
    fillCache();
    uint32_t n = 0;
    for (auto _ : state) {
        uint32_t ip = 0;
        char name[kNeighborNameLen] = {};
        benchmark::DoNotOptimize(getSnifferNeighborHost(macOf(n).data(), &ip, name, sizeof name));
        n = (n + 1) % kNeighborCapacity;
    }
    state.SetItemsProcessed(state.iterations());
    aging_neighbor_host(1);
}
BENCHMARK(BM_LookupKnownMac);

// Ethernet and ARP reply headers; the two MACs are rewritten per frame.
std::vector<uint8_t> arpReply() {
    std::vector<uint8_t> f(kArpFrameLen, 0);
    const uint8_t header[] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x02, 0, 0, 0, 0,
                              1,    0x08, 0x06, 0,    1,    0x08, 0,    6, 4, 0, 2};
    std::copy(std::begin(header), std::end(header), f.begin());
    f[28] = 192, f[29] = 168, f[30] = 1, f[31] = 50;  // sender address
    f[38] = 192, f[39] = 168, f[40] = 1, f[41] = 1;   // target address
    return f;
}

void BM_FloodOfNewMacs(benchmark::State &state) {
    fillCache();
    std::vector<uint8_t> frame = arpReply();
    std::mt19937_64 random(1);
    for (auto _ : state) {
        const uint64_t bits = random();
        for (size_t i = 0; i < 6; ++i) {
            frame[kSenderMac + i] = uint8_t(bits >> (8 * i));
            frame[kTargetMac + i] = uint8_t(bits >> (8 * i + 16));
        }
        frame[kSenderMac] = frame[kTargetMac] = 0x02;  // never the all-zero MAC
        benchmark::DoNotOptimize(parse_packet(frame.data(), frame.size()));
    }
    state.SetItemsProcessed(state.iterations());
    aging_neighbor_host(1);
}
BENCHMARK(BM_FloodOfNewMacs);

// A full cache whose every entry has expired, emptied by one ageing pass.
void BM_AgeFullCache(benchmark::State &state) {
    for (auto _ : state) {
        state.PauseTiming();
        fillCache();
        fake::advanceSeconds(kNeighborLifetimeSec);
        state.ResumeTiming();
        aging_neighbor_host(0);
    }
    state.SetItemsProcessed(state.iterations() * kNeighborCapacity);
}
BENCHMARK(BM_AgeFullCache);

}  // namespace
