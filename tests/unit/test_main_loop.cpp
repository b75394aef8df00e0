#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "core/daemon.h"
#include "fixture.h"

namespace {

class MainLoopTest : public HostrixTest {
protected:
    void SetUp() override {
        HostrixTest::SetUp();
        sigFlags = 0;
    }
    void TearDown() override { sigFlags = 0; }

    std::string signalWorkOutput(uint32_t bits, bool *keepRunning) {
        sigFlags = bits;
        ::testing::internal::CaptureStdout();
        *keepRunning = handleSignalWork(state);
        return ::testing::internal::GetCapturedStdout();
    }

    MainLoopState state;
};

TEST_F(MainLoopTest, HandlerOnlySetsTheSignalBit) {
    signalHandler(SIGUSR1);
    signalHandler(SIGTERM);
    EXPECT_EQ(sigFlags.load(), SIG_BIT_RELOAD | SIG_BIT_TERMINATE);
}

TEST_F(MainLoopTest, ReloadRunsBeforeRefreshInOnePass) {
    dbg_level = DBG_TRACE;
    fake::state().settings = {{MIB_DBG_LEVEL, DBG_TRACE}};
    bool running = false;
    std::string out = signalWorkOutput(SIG_BIT_RELOAD | SIG_BIT_REFRESH, &running);
    size_t reload = out.find("receive USR1 signal");
    size_t refresh = out.find("receive USR2 signal");
    ASSERT_NE(reload, std::string::npos);
    ASSERT_NE(refresh, std::string::npos);
    EXPECT_LT(reload, refresh);
    EXPECT_TRUE(running);
    EXPECT_EQ(sigFlags.load(), 0u);
}

TEST_F(MainLoopTest, TerminateStillRefreshesFirstAndKeepsItsBit) {
    dbg_level = DBG_TRACE;
    bool running = true;
    std::string out = signalWorkOutput(SIG_BIT_REFRESH | SIG_BIT_TERMINATE, &running);
    EXPECT_NE(out.find("receive USR2 signal"), std::string::npos);
    EXPECT_FALSE(running);
    EXPECT_EQ(sigFlags.load(), SIG_BIT_TERMINATE);
}

TEST_F(MainLoopTest, BitsSetDuringWorkAreNotLost) {
    bool running = false;
    signalWorkOutput(SIG_BIT_DUMP, &running);
    sigFlags.fetch_or(SIG_BIT_RELOAD);  // arrives after the pass
    EXPECT_EQ(sigFlags.load(), SIG_BIT_RELOAD);
}

TEST_F(MainLoopTest, TimeoutIsRearmedOnlyOnceRunDown) {
    timeval timeout{};
    rearmTimeout(timeout);
    EXPECT_EQ(timeout.tv_sec, 3);
    EXPECT_EQ(timeout.tv_usec, 0);
    timeout = {1, 250000};  // what select left after an event
    rearmTimeout(timeout);
    EXPECT_EQ(timeout.tv_sec, 1);
    EXPECT_EQ(timeout.tv_usec, 250000);
    timeout = {0, 1};
    rearmTimeout(timeout);
    EXPECT_EQ(timeout.tv_usec, 1);
}

TEST_F(MainLoopTest, DescriptorCountCoversTheLargestWatchedOne) {
    fd_set set;
    EXPECT_EQ(buildReadSet(state, set), 2);  // nothing watched: 1 + 1
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    state.fifoFd.reset(fds[0]);
    UniqueFd writer(fds[1]);
    EXPECT_EQ(buildReadSet(state, set), fds[0] + 1);
    EXPECT_TRUE(FD_ISSET(fds[0], &set));
}

TEST_F(MainLoopTest, FirstTimeoutRunsEveryDutyGroup) {
    int64_t start = fake::state().monotonic.tv_sec;
    state.nextTick1 = state.nextTick30 = start;
    fake::advanceSeconds(3);
    runPeriodicDuties(state);
    EXPECT_EQ(state.nextTick1, start + 4);
    EXPECT_EQ(state.nextTick30, start + 33);
    EXPECT_EQ(state.nextFileWrite, start + 33);
}

TEST_F(MainLoopTest, ThirtySecondTickNeedsStrictlyLaterTime) {
    int64_t now = fake::state().monotonic.tv_sec;
    state.nextTick1 = now + 5;
    state.nextTick30 = now;
    state.nextFileWrite = static_cast<int32_t>(now + 10);
    runPeriodicDuties(state);
    EXPECT_EQ(state.nextTick1, now + 5);  // not due
    EXPECT_EQ(state.nextTick30, now);     // equal is not later
    EXPECT_EQ(state.nextFileWrite, now + 10);
}

TEST_F(MainLoopTest, UnreadableClockStillRunsDuties) {
    fake::state().monotonicFails = true;
    runPeriodicDuties(state);
    EXPECT_EQ(state.nextTick1, 1);
    EXPECT_EQ(state.nextFileWrite, 30);
}

TEST_F(MainLoopTest, LongFifoWriteIsReadAsTwoCommands) {
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_NONBLOCK), 0);
    state.fifoFd.reset(fds[0]);
    UniqueFd writer(fds[1]);
    // 300 bytes: the first read takes 256 and parses 255; the last 44 come next time.
    std::string text = "log 0x20" + std::string(247, ' ') + "X" + std::string(35, ' ') + "log 0x800";
    ASSERT_EQ(text.size(), 300u);
    ASSERT_EQ(write(writer.get(), text.data(), text.size()), 300);
    ::testing::internal::CaptureStdout();
    readFifoCommand(state);
    EXPECT_EQ(dbg_level, 0x20u);
    readFifoCommand(state);
    std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(dbg_level, 0x800u);
    EXPECT_EQ(out, "dbg_level=0x20\ndbg_level=0x800\n");
}

}  // namespace
