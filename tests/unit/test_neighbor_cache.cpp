// The neighbour cache's bound: the line that reports replacements in a full cache, at
// most once a minute. Ageing is the packet parser's tests'.
#include <regex>

#include "fixture.h"
#include "sniffer/neighbor_cache.h"

namespace {

// Distinct MACs, spread over all six octets so that they share no hash pattern.
fake::Mac macOf(uint32_t n) {
    return {0x02, uint8_t(n * 37), uint8_t(n >> 8), uint8_t(n), uint8_t(n * 11), 0x5a};
}

void see(uint32_t n) {
    const uint32_t ip = htonl(0x0a000000 + n + 1);
    update_neighbor_host(macOf(n).data(), &ip, nullptr);
}

// What N sightings of new MACs, from FIRST on, printed.
std::string seeNew(uint32_t first, uint32_t count) {
    ::testing::internal::CaptureStdout();
    for (uint32_t n = first; n < first + count; ++n) see(n);
    const std::string out = ::testing::internal::GetCapturedStdout();
    return std::regex_replace(out, std::regex(":[0-9]+\\]"), ":N]");
}

using NeighborCacheTest = HostrixTest;

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
