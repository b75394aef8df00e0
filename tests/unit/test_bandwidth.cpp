#include <algorithm>
#include <cstring>
#include <string>
#include <tuple>

#include "fixture.h"

namespace {

const fake::Mac kHost = fake::mac(2, 0, 0, 0, 0, 1);

class BandwidthTest : public HostrixTest {
protected:
    void SetUp() override {
        HostrixTest::SetUp();
        setMaxLanHostNum(kHostPoolSize);
        entry = addHost(kHost);
    }
    lanHostBw_t &bw() { return lanHostBw[hostSlot(entry)]; }
    void forcedSample(uint64_t sent, uint64_t received) {
        fake::state().counters[kHost] = {sent, received};
        getAndCalcLanHostCurrBandwidth(1, 1);
    }
    // The pass's trace output.
    std::string pass(uint8_t enable, uint8_t force) {
        ::testing::internal::CaptureStdout();
        getAndCalcLanHostCurrBandwidth(enable, force);
        return ::testing::internal::GetCapturedStdout();
    }
    hostEntry *entry = nullptr;
};

TEST(BandwidthArithmetic, ElapsedWrapsIn32BitsAndRateTruncates) {
    // (now s, now us, last s, last us) -> ms
    EXPECT_EQ(elapsedMilliseconds(110, 0, 100, 0), 10000);
    EXPECT_EQ(elapsedMilliseconds(100, 999, 100, 0), 0);         // same millisecond
    EXPECT_EQ(elapsedMilliseconds(95, 0, 100, 0), -5000);        // clock set back
    EXPECT_EQ(elapsedMilliseconds(11, 100, 10, 900100), 100);    // 1000 - 900
    EXPECT_EQ(elapsedMilliseconds(100, 0, 99, 999999), 1);       // -999.999 ms truncates to -999
    EXPECT_EQ(elapsedMilliseconds(4294968, 0, 0, 0), 704);       // 4294968000 mod 2^32
    EXPECT_EQ(rateUnits(1280000, 10000), 1000u);
    EXPECT_EQ(rateUnits(1280000, 0), 0u);
    EXPECT_EQ(rateUnits(1280000, -1), 0u);
    EXPECT_EQ(rateUnits((1ull << 39) + 128, 1000), 1u);          // 2^32 + 1 cut to 32 bits
    EXPECT_EQ(counterRate(5000, 4000, 1000), 0u);                // counter reset
}

TEST_F(BandwidthTest, SecondSampleGivesRatesAndAlwaysTheNewCounts) {
    struct { long addSec, addUsec; uint64_t sent, received; uint32_t up, down; } cases[] = {
        {10, 0, 1281000, 2561000, 1000, 2000},
        {0, 500, 1281000, 2561000, 0, 0},  // same millisecond
        {-5, 0, 1281000, 2561000, 0, 0},   // clock set back
        {10, 0, 10, 1281000, 0, 1000}};    // sent counter reset
    for (const auto &c : cases) {
        forcedSample(1000, 1000);
        fake::state().wall += c.addSec;
        fake::state().wallUsec += c.addUsec;
        forcedSample(c.sent, c.received);
        EXPECT_EQ(std::tie(bw().upRate, bw().downRate, bw().txBytes, bw().rxBytes),
                  std::tie(c.up, c.down, c.sent, c.received)) << c.addSec << " s " << c.sent;
    }
}

TEST_F(BandwidthTest, CounterSetsAreSummed) {
    struct { bool plain, fc; int result; uint64_t received, sent; } cases[] = {
        {true, true, 0, 22, 11}, {false, true, 0, 20, 10}, {true, false, 0, 2, 1},
        {false, false, -1, 0, 0}};
    for (const auto &c : cases) {
        fake::state().counters.clear();
        fake::state().fcCounters.clear();
        if (c.plain) fake::state().counters[kHost] = {1, 2};
        if (c.fc) fake::state().fcCounters[kHost] = {10, 20};
        uint64_t pair[2] = {7, 7};
        EXPECT_EQ(getLanHostHpcCounter(entry, pair), c.result);
        EXPECT_EQ(pair[kHpcReceived], c.received);
        EXPECT_EQ(pair[kHpcSent], c.sent);
    }
}

TEST_F(BandwidthTest, UnansweredInvalidAndZeroMacHostsKeepTheirRecord) {
    hostEntry *offline = addHost(fake::mac(2, 0, 0, 0, 0, 2));
    hostEntry *noMac = addHost(fake::mac(2, 0, 0, 0, 0, 3));
    offline->valid = 0;
    fake::state().counters[fake::mac(2, 0, 0, 0, 0, 2)] = {9, 9};
    std::fill(std::begin(noMac->lanHost.mac), std::end(noMac->lanHost.mac), 0);
    fake::state().counters[fake::Mac{}] = {9, 9};
    const lanHostBw_t before{1, 2, 3, 4, 5, 6};
    for (hostEntry *e : {entry, offline, noMac}) lanHostBw[hostSlot(e)] = before;
    getAndCalcLanHostCurrBandwidth(1, 1);  // kHost has no counters at all
    for (hostEntry *e : {entry, offline, noMac})
        EXPECT_EQ(std::memcmp(&lanHostBw[hostSlot(e)], &before, sizeof before), 0);
}

TEST_F(BandwidthTest, SamplesOnlyWhenDueAndTracesTheIntervalWhenPastTheSchedule) {
    struct { uint8_t enable, force; uint32_t interval; int64_t nextFromNow; bool sampled;
             int64_t nextAfter; } cases[] = {
        {1, 0, 10, -1, true, 10},  {1, 0, 10, 0, false, 0},   // due; not yet due
        {1, 1, 10, 5, true, 10},                              // forced restarts the schedule
        {1, 0, 0, -1, false, -1},  {1, 1, 0, -1, true, 0},    // interval 0: only forced
        {0, 1, 10, -1, false, -1}};                           // disabled, even forced
    const int64_t now = fake::state().wall;
    fake::state().counters[kHost] = {5, 5};
    dbg_level = DBG_TRACE;
    for (const auto &c : cases) {
        bw() = {};
        bandwidthInterval = c.interval;
        nextBandwidthTime = now + c.nextFromNow;
        std::string out = pass(c.enable, c.force);
        SCOPED_TRACE(testing::Message() << int(c.enable) << int(c.force) << " " << c.interval
                                        << " " << c.nextFromNow);
        EXPECT_EQ(bw().txBytes, c.sampled ? 5u : 0u);
        EXPECT_EQ(nextBandwidthTime, now + c.nextAfter);
        bool traced = c.enable && c.nextFromNow < 0;
        EXPECT_EQ(out.rfind("[Hostrix]:[getAndCalcLanHostCurrBandwidth ", 0) == 0, traced) << out;
        if (traced) {
            EXPECT_TRUE(out.ends_with("]:interval = " + std::to_string(c.interval) + ".\n"));
        }
    }
}

TEST_F(BandwidthTest, ClockFailureSkipsThePassAndKeepsTheSchedule) {
    fake::state().counters[kHost] = {5, 5};
    fake::state().wallFails = true;
    nextBandwidthTime = 42;
    bandwidthInterval = 10;
    std::string out = pass(1, 1);
    EXPECT_EQ(out.rfind("[getAndCalcLanHostCurrBandwidth ", 0), 0u) << out;
    EXPECT_TRUE(out.ends_with("]: exec gettimeofday failed.\n\n")) << out;
    EXPECT_EQ(bw().txBytes, 0u);
    EXPECT_EQ(nextBandwidthTime, 42);
}

}  // namespace
