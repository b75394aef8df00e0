#include <algorithm>
#include <cstring>
#include <string>

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

struct SampleCase {
    const char *name;
    long addSec, addUsec;
    uint64_t sent, received;  // second sample; the first is {1000, 1000}
    uint32_t upRate, downRate;
};

class SecondSample : public BandwidthTest, public ::testing::WithParamInterface<SampleCase> {};

TEST_P(SecondSample, RatesAndCounts) {
    const SampleCase &c = GetParam();
    forcedSample(1000, 1000);
    fake::state().wall += c.addSec;
    fake::state().wallUsec += c.addUsec;
    forcedSample(c.sent, c.received);
    EXPECT_EQ(bw().upRate, c.upRate);
    EXPECT_EQ(bw().downRate, c.downRate);
    EXPECT_EQ(bw().txBytes, c.sent);  // always the new count, also after a reset
    EXPECT_EQ(bw().rxBytes, c.received);
}

INSTANTIATE_TEST_SUITE_P(Bandwidth, SecondSample, ::testing::Values(
    SampleCase{"TenSeconds", 10, 0, 1281000, 2561000, 1000, 2000},
    SampleCase{"SameMillisecond", 0, 500, 1281000, 2561000, 0, 0},
    SampleCase{"ClockSetBack", -5, 0, 1281000, 2561000, 0, 0},
    SampleCase{"CounterDecreased", 10, 0, 10, 1281000, 0, 1000}), CaseName());

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

struct ScheduleCase {
    const char *name;
    uint8_t enable, force;
    uint32_t interval;
    int64_t nextFromNow;  // nextBandwidthTime - now before the call
    bool sampled;
    int64_t nextAfter;  // nextBandwidthTime - now after the call
};

class Schedule : public BandwidthTest, public ::testing::WithParamInterface<ScheduleCase> {};

TEST_P(Schedule, SamplesOnlyWhenDue) {
    const ScheduleCase &c = GetParam();
    const int64_t now = fake::state().wall;
    bandwidthInterval = c.interval;
    nextBandwidthTime = now + c.nextFromNow;
    fake::state().counters[kHost] = {5, 5};
    dbg_level = DBG_TRACE;
    ::testing::internal::CaptureStdout();
    getAndCalcLanHostCurrBandwidth(c.enable, c.force);
    std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(bw().txBytes, c.sampled ? 5u : 0u);
    EXPECT_EQ(nextBandwidthTime, now + c.nextAfter);
    bool traced = c.enable && c.nextFromNow < 0;
    EXPECT_EQ(out.rfind("[Hostrix]:[getAndCalcLanHostCurrBandwidth ", 0) == 0, traced) << out;
    if (traced) {
        EXPECT_EQ(out.substr(out.rfind("]:")), "]:interval = " + std::to_string(c.interval) + ".\n");
    }
}

INSTANTIATE_TEST_SUITE_P(Bandwidth, Schedule, ::testing::Values(
    ScheduleCase{"Due", 1, 0, 10, -1, true, 10},
    ScheduleCase{"NotYetDue", 1, 0, 10, 0, false, 0},
    ScheduleCase{"ForcedBeforeDue", 1, 1, 10, 5, true, 10},
    ScheduleCase{"IntervalZeroNeverDue", 1, 0, 0, -1, false, -1},
    ScheduleCase{"IntervalZeroForced", 1, 1, 0, -1, true, 0},
    ScheduleCase{"DisabledEvenForced", 0, 1, 10, -1, false, -1}), CaseName());

TEST_F(BandwidthTest, ClockFailureSkipsThePassAndKeepsTheSchedule) {
    fake::state().counters[kHost] = {5, 5};
    fake::state().wallFails = true;
    nextBandwidthTime = 42;
    bandwidthInterval = 10;
    ::testing::internal::CaptureStdout();
    getAndCalcLanHostCurrBandwidth(1, 1);
    std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(out.rfind("[getAndCalcLanHostCurrBandwidth ", 0), 0u) << out;
    EXPECT_NE(out.find("]: exec gettimeofday failed.\n\n"), std::string::npos) << out;
    EXPECT_EQ(bw().txBytes, 0u);
    EXPECT_EQ(nextBandwidthTime, 42);
}

}  // namespace
