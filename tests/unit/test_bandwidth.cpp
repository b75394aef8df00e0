#include "fixture.h"

namespace {

const fake::Mac kHost = fake::mac(2, 0, 0, 0, 0, 1);

struct BandwidthTest : HostrixTest {
    void SetUp() override {
        HostrixTest::SetUp();
        entry = addHost(kHost);
        start = fake::state().wall;
    }
    lanHostBw_t &bw() { return lanHostBw[hostSlot(entry)]; }
    // A forced pass at wall time SEC.USEC with MAC's counters at SENT and RECEIVED.
    void sampleAt(time_t sec, long usec, const fake::Mac &mac, uint64_t sent, uint64_t received) {
        fake::state().wall = sec;
        fake::state().wallUsec = usec;
        fake::state().counters[mac] = {sent, received};
        getAndCalcLanHostCurrBandwidth(1, 1);
    }
    hostEntry *entry = nullptr;
    time_t start = 0;
};

// Rates in units of 1024 bit/s from two samples; the counts are always the new ones.
TEST_F(BandwidthTest, SecondSampleGivesRatesAndTheNewCounts) {
    // Seconds between the samples, their microseconds, the new counts, the rates.
    const std::tuple<long, long, long, uint64_t, uint64_t, uint32_t, uint32_t> cases[] = {
        {10, 0, 0, 1281000, 2561000, 1000, 2000},
        {1, 900100, 100, 13800, 1000, 1000, 0},  // 100 ms
        {0, 0, 500, 1281000, 2561000, 0, 0},     // same millisecond
        {-5, 0, 0, 1281000, 2561000, 0, 0},      // clock set back
        {10, 0, 0, 10, 1281000, 0, 1000}};       // sent counter reset
    for (const auto &[secs, usecBefore, usecAfter, sent, received, up, down] : cases) {
        sampleAt(start, usecBefore, kHost, 1000, 1000);
        sampleAt(start + secs, usecAfter, kHost, sent, received);
        EXPECT_EQ(std::tie(bw().upRate, bw().downRate, bw().txBytes, bw().rxBytes),
                  std::tie(up, down, sent, received))
            << secs << " s " << sent;
    }
}

// A slot's record is never cleared: the next host in the slot is measured against it.
TEST_F(BandwidthTest, ReusedSlotIsMeasuredAgainstThePreviousHostsRecord) {
    sampleAt(start, 0, kHost, 1000, 1000);
    makeRecyclable(entry);
    RecycleInvalidHostrix();
    const fake::Mac next = fake::mac(2, 0, 0, 0, 0, 9);
    ASSERT_EQ(addHost(next), entry);
    sampleAt(start + 10, 0, next, 1281000, 1000);
    EXPECT_EQ(std::pair(bw().upRate, bw().downRate), std::pair(1000u, 0u));
}

// A failed clock read samples nothing, says so and keeps the schedule.
TEST_F(BandwidthTest, SamplesOnlyWhenDue) {
    // enable and force, the interval, the next pass from now, whether the clock fails; then
    // whether the pass sampled, and the next pass from now after it.
    const std::tuple<uint8_t, uint8_t, uint32_t, int64_t, bool, bool, int64_t> cases[] = {
        {1, 0, 10, -1, false, true, 10},  {1, 0, 10, 0, false, false, 0},    // due; not yet
        {1, 1, 10, 5, false, true, 10},                                      // forced: restarts
        {1, 0, 0, -1, false, false, -1},  {1, 1, 0, -1, false, true, 0},     // 0: only forced
        {0, 1, 10, -1, false, false, -1}, {1, 1, 10, -1, true, false, -1}};  // disabled; no clock
    fake::state().counters[kHost] = {5, 5};
    for (const auto &[enable, force, interval, nextFromNow, clockFails, sampled, next] : cases) {
        bw() = {};
        bandwidthInterval = interval;
        nextBandwidthTime = start + nextFromNow;
        fake::state().wallFails = clockFails;
        const std::string out = printedBy([&] { getAndCalcLanHostCurrBandwidth(enable, force); });
        EXPECT_EQ(std::tuple(bw().txBytes, nextBandwidthTime,
                             out.ends_with("]: exec gettimeofday failed.\n\n")),
                  std::tuple(sampled ? uint64_t{5} : 0, start + next, clockFails))
            << int(enable) << int(force) << " " << interval << " " << nextFromNow << " " << out;
    }
}

}  // namespace
