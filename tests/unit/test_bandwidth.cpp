#include <algorithm>
#include <cstring>
#include <tuple>

#include "fixture.h"

namespace {

const fake::Mac kHost = fake::mac(2, 0, 0, 0, 0, 1);

class BandwidthTest : public HostrixTest {
   protected:
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
    struct {
        long secs, usecBefore, usecAfter;
        uint64_t sent, received;
        uint32_t up, down;
    } cases[] = {{10, 0, 0, 1281000, 2561000, 1000, 2000},
                 {1, 900100, 100, 13800, 1000, 1000, 0},  // 100 ms
                 {0, 0, 500, 1281000, 2561000, 0, 0},     // same millisecond
                 {-5, 0, 0, 1281000, 2561000, 0, 0},      // clock set back
                 {10, 0, 0, 10, 1281000, 0, 1000}};       // sent counter reset
    for (const auto &c : cases) {
        sampleAt(start, c.usecBefore, kHost, 1000, 1000);
        sampleAt(start + c.secs, c.usecAfter, kHost, c.sent, c.received);
        EXPECT_EQ(std::tie(bw().upRate, bw().downRate, bw().txBytes, bw().rxBytes),
                  std::tie(c.up, c.down, c.sent, c.received))
            << c.secs << " s " << c.sent;
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
    struct {
        uint8_t enable, force;
        uint32_t interval;
        int64_t nextFromNow;
        bool clockFails, sampled;
        int64_t nextAfter;
    } cases[] = {
        {1, 0, 10, -1, false, true, 10},  {1, 0, 10, 0, false, false, 0},    // due; not yet
        {1, 1, 10, 5, false, true, 10},                                      // forced: restarts
        {1, 0, 0, -1, false, false, -1},  {1, 1, 0, -1, false, true, 0},     // 0: only forced
        {0, 1, 10, -1, false, false, -1}, {1, 1, 10, -1, true, false, -1}};  // disabled; no clock
    fake::state().counters[kHost] = {5, 5};
    for (const auto &c : cases) {
        bw() = {};
        bandwidthInterval = c.interval;
        nextBandwidthTime = start + c.nextFromNow;
        fake::state().wallFails = c.clockFails;
        ::testing::internal::CaptureStdout();
        getAndCalcLanHostCurrBandwidth(c.enable, c.force);
        std::string out = ::testing::internal::GetCapturedStdout();
        SCOPED_TRACE(testing::Message() << int(c.enable) << int(c.force) << " " << c.interval << " "
                                        << c.nextFromNow << " " << c.clockFails);
        EXPECT_EQ(std::pair(bw().txBytes, nextBandwidthTime),
                  std::pair(c.sampled ? uint64_t{5} : 0, start + c.nextAfter));
        EXPECT_EQ(out.ends_with("]: exec gettimeofday failed.\n\n"), c.clockFails) << out;
    }
}

}  // namespace
