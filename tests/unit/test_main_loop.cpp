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

    MainLoopState state;
};

TEST_F(MainLoopTest, HandlerOnlySetsTheSignalBit) {
    signalHandler(SIGUSR1);
    signalHandler(SIGTERM);
    EXPECT_EQ(sigFlags.load(), SIG_BIT_RELOAD | SIG_BIT_TERMINATE);
}

// One pass does every pending job, reload before refresh, and clears all bits but
// terminate's, which ends the loop.
TEST_F(MainLoopTest, OnePassDoesAllWorkAndKeepsOnlyTerminate) {
    EXPECT_TRUE(handleSignalWork(state));
    dbg_level = DBG_TRACE;
    fake::state().settings = {{MIB_DBG_LEVEL, DBG_TRACE}};
    sigFlags = SIG_BIT_RELOAD | SIG_BIT_REFRESH | SIG_BIT_DUMP | SIG_BIT_TERMINATE;
    ::testing::internal::CaptureStdout();
    EXPECT_FALSE(handleSignalWork(state));
    std::string out = ::testing::internal::GetCapturedStdout();
    size_t reload = out.find("receive USR1 signal");
    ASSERT_NE(reload, std::string::npos);
    EXPECT_NE(out.find("receive USR2 signal", reload), std::string::npos);
    EXPECT_EQ(sigFlags.load(), SIG_BIT_TERMINATE);
}

// What select left after an event is kept; only a run-down timeout is rearmed.
TEST_F(MainLoopTest, TimeoutIsRearmedOnlyOnceRunDown) {
    const timeval cases[][2] = {{{0, 0}, {3, 0}}, {{1, 250000}, {1, 250000}}, {{0, 1}, {0, 1}}};
    for (const auto &[before, after] : cases) {
        timeval timeout = before;
        rearmTimeout(timeout);
        EXPECT_EQ(timeout.tv_sec, after.tv_sec) << before.tv_sec << "." << before.tv_usec;
        EXPECT_EQ(timeout.tv_usec, after.tv_usec) << before.tv_sec << "." << before.tv_usec;
    }
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

// The 1 s tick and the file write are due at their time, the 30 s tick only after it.
TEST_F(MainLoopTest, DutiesRunWhenDue) {
    int64_t now = fake::state().monotonic.tv_sec;
    state.nextTick1 = now;
    state.nextTick30 = now - 1;
    state.nextFileWrite = static_cast<int32_t>(now);
    runPeriodicDuties(state);
    EXPECT_EQ(state.nextTick1, now + 1);
    EXPECT_EQ(state.nextTick30, now + 30);
    EXPECT_EQ(state.nextFileWrite, now + 30);
    state.nextTick30 = now;
    runPeriodicDuties(state);
    EXPECT_EQ(state.nextTick1, now + 1);  // not due
    EXPECT_EQ(state.nextTick30, now);     // equal is not later
    EXPECT_EQ(state.nextFileWrite, now + 30);
}

// 300 bytes: the first read takes 256 and parses 255; the last 44 come next time.
TEST_F(MainLoopTest, LongFifoWriteIsReadAsTwoCommands) {
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_NONBLOCK), 0);
    state.fifoFd.reset(fds[0]);
    UniqueFd writer(fds[1]);
    std::string text = "log 0x20" + std::string(247, ' ') + "X" + std::string(35, ' ') + "log 0x800";
    ASSERT_EQ(write(writer.get(), text.data(), text.size()), 300);
    ::testing::internal::CaptureStdout();
    readFifoCommand(state);
    readFifoCommand(state);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "dbg_level=0x20\ndbg_level=0x800\n");
}

}  // namespace
