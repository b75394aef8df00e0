#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <utility>

#include "control/host_file.h"
#include "core/daemon.h"
#include "reader_lock.h"
#include "root_fixture.h"

namespace {

class MainLoopTest : public RootedTest {
   protected:
    void SetUp() override {
        RootedTest::SetUp();
        sigFlags = 0;
    }
    void TearDown() override {
        closeSignalWake(state);
        sigFlags = 0;
        RootedTest::TearDown();
    }

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

// A signal that arrives while signal work is being done is handled in the same pass,
// before the loop waits again: SIGTERM ends it, SIGUSR2 leaves nothing pending.
TEST_F(MainLoopTest, SignalDuringSignalWorkIsHandledBeforeTheWait) {
    for (auto [raised, keepsRunning] : {std::pair{SIGTERM, false}, std::pair{SIGUSR2, true}}) {
        int pending = raised;
        fake::state().onSettingRead = [&pending](int) {
            if (pending) signalHandler(std::exchange(pending, 0));
        };
        sigFlags = SIG_BIT_RELOAD;
        state.waitArmed = true;  // and already run down: a surviving pass does not wait
        state.waitDeadlineMs = 0;
        EXPECT_EQ(runLoopPass(state), keepsRunning) << raised;
        EXPECT_EQ(sigFlags.load(), keepsRunning ? 0u : SIG_BIT_TERMINATE) << raised;
    }
}

// The handler also wakes the wait, so a signal after the signal work is not left
// for the next timeout; the next pass empties the pipe.
TEST_F(MainLoopTest, HandlerWakesTheWait) {
    ASSERT_EQ(openSignalWake(state), 0);
    auto readable = [this] {
        fd_set set;
        int count = buildReadSet(state, set);
        timeval now{};
        return select(count, &set, nullptr, nullptr, &now) == 1 &&
               FD_ISSET(state.signalWakeFd.get(), &set);
    };
    EXPECT_FALSE(readable());
    signalHandler(SIGHUP);
    signalHandler(SIGHUP);
    EXPECT_TRUE(readable());
    drainSignalWake(state);
    EXPECT_FALSE(readable());
}

// A write that a reader's lock held off is tried at the next 1 s tick, and so is one
// asked for by SIGUSR2; a due write that succeeds waits the full 30 s again.
TEST_F(MainLoopTest, SkippedFileWriteIsRetriedAtTheNextTick) {
    const int64_t now = fake::state().monotonic.tv_sec;
    ASSERT_EQ(writeLanHostInfo(), 0);
    {
        ReaderLock reader(hostrixPath(HostrixFile::HostInfo));
        ASSERT_TRUE(reader.locked());
        state.nextFileWrite = static_cast<int32_t>(now);
        runPeriodicDuties(state);
        EXPECT_EQ(state.nextFileWrite, now + kFileRetryInterval);
        state.nextFileWrite = static_cast<int32_t>(now + 20);
        sigFlags = SIG_BIT_REFRESH;
        EXPECT_TRUE(handleSignalWork(state));
        EXPECT_EQ(state.nextFileWrite, now + kFileRetryInterval);
    }
    fake::advanceSeconds(kFileRetryInterval);
    runPeriodicDuties(state);
    EXPECT_EQ(state.nextFileWrite, now + kFileRetryInterval + kFileWriteInterval);
}

// Whatever the umask, the FIFO is root's alone, or its group's too with a socket
// group; a FIFO left with a wider mode is narrowed.
TEST_F(MainLoopTest, FifoModeIgnoresTheUmask) {
    const std::string path = hostrixPath(HostrixFile::Fifo);
    const mode_t previous = umask(0);
    for (auto [group, mode] : {std::pair{-1, 0600}, std::pair{1, 0660}, std::pair{-1, 0600}}) {
        fake::state().socketGroup = group;
        UniqueFd fifo(createHostrixFifo());
        struct stat info {};
        ASSERT_EQ(stat(path.c_str(), &info), 0);
        EXPECT_EQ(info.st_mode & 07777, static_cast<mode_t>(mode)) << group;
        EXPECT_TRUE(group < 0 || info.st_gid == static_cast<gid_t>(group)) << info.st_gid;
        chmod(path.c_str(), 0666);
    }
    umask(previous);
}

// Events do not move the deadline: each wait gets what is left of the 3 s, and only a
// run-down wait (disarmed by the timeout) starts a new one.
TEST_F(MainLoopTest, WaitKeepsItsDeadlineAcrossEvents) {
    EXPECT_EQ(remainingWaitMs(state, 10'000), 3000);
    EXPECT_EQ(remainingWaitMs(state, 11'250), 1750);
    EXPECT_EQ(remainingWaitMs(state, 14'000), 0);
    state.waitArmed = false;
    EXPECT_EQ(remainingWaitMs(state, 14'000), 3000);
}

// A client that asks without pause cannot hold the duties off: a pass that finds the
// wait run down runs them without waiting on the descriptors.
TEST_F(MainLoopTest, DutiesRunWhenTheWaitRanDownWhileServing) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    state.fifoFd.reset(fds[0]);
    UniqueFd writer(fds[1]);
    ASSERT_EQ(write(fds[1], "x", 1), 1);  // always readable
    remainingWaitMs(state, int64_t{fake::state().monotonic.tv_sec} * 1000 - 3000);
    state.nextTick1 = fake::state().monotonic.tv_sec;
    EXPECT_TRUE(runLoopPass(state));
    EXPECT_EQ(state.nextTick1, fake::state().monotonic.tv_sec + 1);
    EXPECT_FALSE(state.waitArmed);
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
    std::string text =
        "log 0x20" + std::string(247, ' ') + "X" + std::string(35, ' ') + "log 0x800";
    ASSERT_EQ(write(writer.get(), text.data(), text.size()), 300);
    ::testing::internal::CaptureStdout();
    readFifoCommand(state);
    readFifoCommand(state);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "dbg_level=0x20\ndbg_level=0x800\n");
}

}  // namespace
