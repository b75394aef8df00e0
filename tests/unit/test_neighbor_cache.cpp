// The neighbour cache's bound: which entry a new MAC replaces when it is full, and the
// line that reports it. Ageing is the packet parser's tests'.
#include <arpa/inet.h>

#include <regex>

#include "fixture.h"
#include "sniffer/neighbor_cache.h"

namespace {

using Mac = std::array<uint8_t, 6>;

// Distinct MACs, spread over all six octets so that they share no hash pattern.
Mac macOf(uint32_t n) {
    return {0x02, uint8_t(n * 37), uint8_t(n >> 8), uint8_t(n), uint8_t(n * 11), 0x5a};
}

void see(uint32_t n) {
    const uint32_t ip = htonl(0x0a000000 + n + 1);
    update_neighbor_host(macOf(n).data(), &ip, nullptr);
}

bool cached(uint32_t n) {
    return getSnifferNeighborHost(macOf(n).data(), nullptr, nullptr, 0) == 1;
}

size_t entries() {
    ::testing::internal::CaptureStdout();
    dump_neighbor_host();
    const std::string out = ::testing::internal::GetCapturedStdout();
    return size_t(std::count(out.begin(), out.end(), '\n')) - 2;  // heading, empty end line
}

// What N sightings of new MACs, from FIRST on, printed.
std::string seeNew(uint32_t first, uint32_t count) {
    ::testing::internal::CaptureStdout();
    for (uint32_t n = first; n < first + count; ++n) see(n);
    const std::string out = ::testing::internal::GetCapturedStdout();
    return std::regex_replace(out, std::regex(":[0-9]+\\]"), ":N]");
}

using NeighborCacheTest = HostrixTest;

TEST_F(NeighborCacheTest, FullCacheReplacesTheLeastRecentlySeenEntry) {
    constexpr uint32_t kFull = kNeighborCapacity;
    for (uint32_t n = 0; n < kFull; ++n) see(n);
    see(0);                                   // seen again: entry 1 is now the least recently seen
    delSnifferNeighborHost(macOf(2).data());  // a free entry is used before any is replaced
    see(kFull);
    see(kFull + 1);
    see(kFull + 2);
    EXPECT_EQ(entries(), kNeighborCapacity);
    const struct {
        uint32_t n;
        bool kept;
    } expected[] = {{0, true},     {1, false},        {2, false},
                    {3, false},    {4, true},         {kFull - 1, true},
                    {kFull, true}, {kFull + 1, true}, {kFull + 2, true}};
    for (const auto &e : expected) EXPECT_EQ(cached(e.n), e.kept) << e.n;
    // Lookups still find every entry after the replacements reshuffled the index.
    for (uint32_t n = 4; n < kFull + 3; ++n) ASSERT_TRUE(cached(n)) << n;
}

TEST_F(NeighborCacheTest, ReplacementsAreReportedAtMostOncePerMinute) {
    for (uint32_t n = 0; n < kNeighborCapacity; ++n) see(n);
    const std::string line = "[Sniffer][update_neighbor_host:N] Neighbor cache full (4096): ";
    EXPECT_EQ(seeNew(kNeighborCapacity, 1), line + "1 least recently seen dropped\n");
    EXPECT_EQ(seeNew(kNeighborCapacity + 1, 5), "");
    fake::advanceSeconds(kNeighborEvictionLogIntervalSec - 1);
    EXPECT_EQ(seeNew(kNeighborCapacity + 6, 1), "");
    fake::advanceSeconds(1);
    EXPECT_EQ(seeNew(kNeighborCapacity + 7, 1), line + "7 least recently seen dropped\n");
    setSnifferMonitorLogLevel(0);
    fake::advanceSeconds(kNeighborEvictionLogIntervalSec);
    EXPECT_EQ(seeNew(kNeighborCapacity + 8, 1), "");
}

}  // namespace
