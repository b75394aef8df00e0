#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>

#include "control/ctrl_socket.h"
#include "control/host_file.h"
#include "core/daemon.h"
#include "root_fixture.h"

namespace {

const fake::Mac kMac = localMac(1);

struct MainLoopTest : RootedTest {
    void SetUp() override {
        RootedTest::SetUp();
        sigFlags = 0;
        now = fake::state().monotonic.tv_sec;
    }
    void TearDown() override {
        closeSignalWake(state);
        msg_close_sockfd();
        RootedTest::TearDown();
    }
    // A pipe the loop watches as its FIFO; WRITER gets the other end.
    void watchPipe(UniqueFd &writer) {
        int fds[2];
        ASSERT_EQ(pipe2(fds, O_NONBLOCK), 0);
        state.fifoFd.reset(fds[0]);
        writer.reset(fds[1]);
    }
    bool exists(HostrixFile file) const { return std::filesystem::exists(hostrixPath(file)); }

    MainLoopState state;
    int64_t now = 0;
};

// Start-up reads the settings before it sets the sniffer level and applies the limits,
// and sets every duty due at the first timeout; shutdown stops the sniffer and removes
// the daemon's files.
TEST_F(MainLoopTest, StartUpAppliesTheSettingsAndShutdownCleansUp) {
    fake::state().settings = {{MIB_DBG_LEVEL, DBG_SNIFFER_VERBOSE},
                              {MIB_MAX_LAN_HOST_NUM, 4},
                              {MIB_MAX_CONTROLLED_NUM, 2},
                              {MIB_BANDWIDTH_ENABLE, 1},
                              {MIB_BANDWIDTH_INTERVAL, 10}};
    controlledNum = 5;
    ::testing::internal::CaptureStdout();
    ASSERT_EQ(hostrixStart(state), 0);
    EXPECT_EQ(std::tuple(snifferLogLevel(), maxLanHostNum, maxControlledNum, bandwidthInterval,
                         controlledNum, state.applied.bandwidthEnable),
              std::tuple(7u, 4u, 2u, 10u, 0u, 1));
    EXPECT_EQ(std::tuple(fake::state().counterInitCalls, state.nextTick1, state.nextTick30,
                         nextBandwidthTime),
              std::tuple(1, now, now, fake::state().wall));
    EXPECT_EQ(readText(hostrixPath(HostrixFile::PidFile)), std::to_string(getpid()) + "\n");
    EXPECT_TRUE(state.fifoFd.valid() && state.authFd.valid() && exists(HostrixFile::Fifo));
    ASSERT_EQ(writeLanHostInfo(), 0);
    hostrixShutdown(state);
    ::testing::internal::GetCapturedStdout();
    EXPECT_FALSE(snifferRunning() || exists(HostrixFile::PidFile) || exists(HostrixFile::HostInfo));
}

int openerCalls = 0;

// ARP probing runs before ageing, so a series that ageing opens sends its first request
// at the next run; the bandwidth pass after ageing skips a host ageing took offline. The
// 1 s duties are due at their time, IPv6 probing only after it.
TEST_F(MainLoopTest, DutiesProbeBeforeAgeingAndSampleAfterIt) {
    openerCalls = 0;
    setArpSocketOpener([](sockaddr_ll &) { return ++openerCalls, -1; });
    hostEntry *quiet = addHost(kMac, "wlan0");
    hostEntry *gone = addHost(localMac(2), "wlan0");
    for (auto [entry, idle] : {std::pair{quiet, 65}, std::pair{gone, 90}}) {
        entry->lanHost.connectionType = CONNECTION_WIRELESS;
        entry->lanHost.ip = htonl(0x0a000001);
        entry->updateTime = static_cast<uint32_t>(now - idle);
    }
    fake::state().counters[localMac(2)] = {5, 5};
    state.applied.bandwidthEnable = 1;
    bandwidthInterval = 10;
    state.nextTick1 = state.nextTick30 = now;
    runPeriodicDuties(state);
    EXPECT_EQ(std::tuple(quiet->lanHost.arpRetryCnt, openerCalls, gone->valid,
                         lanHostBw[hostSlot(gone)].txBytes, state.nextTick1, state.nextTick30,
                         int64_t{state.nextFileWrite}),
              std::tuple(3u, 0, 0, 0u, now + 1, now, now + 30));
}

// One pass does all signal work in order: the reload (whose enable flag the refresh
// then uses), the forced rate refresh with the host file, the sniffer dump. Only
// SIGTERM's bit stays, and it ends the loop.
TEST_F(MainLoopTest, OnePassDoesEverySignalsWorkInOrder) {
    addHost(kMac)->startOnLine = 100;
    fake::state().counters[kMac] = {5, 7};
    fake::state().settings = {{MIB_DBG_LEVEL, DBG_TRACE}, {MIB_BANDWIDTH_ENABLE, 1}};
    dbg_level = DBG_TRACE;
    // Raised in this order whatever their numbers, which differ on MIPS.
    for (int signo : {SIGTERM, SIGHUP, SIGUSR2, SIGUSR1}) signalHandler(signo);
    const std::string out = printedBy([this] { EXPECT_FALSE(handleSignalWork(state)); });
    size_t usr2 = out.find("receive USR2 signal", out.find("receive USR1 signal"));
    EXPECT_NE(out.find("====> [Sniffer Information] <====", usr2), std::string::npos) << out;
    EXPECT_EQ(sigFlags.load(), SIG_BIT_TERMINATE);
    std::string file = readText(hostrixPath(HostrixFile::HostInfo));
    lanHostInfo_t record{};
    std::memcpy(&record, file.data(), std::min(file.size(), sizeof record));
    EXPECT_EQ(std::tuple(file.size(), record.txBytes, record.rxBytes), std::tuple(944u, 5u, 7u));
}

// Whatever the umask, the FIFO is root's alone, or its group's too with a socket
// group; one left with a wider mode is narrowed.
TEST_F(MainLoopTest, FifoModeIgnoresTheUmask) {
    const mode_t previous = umask(0);
    for (auto [group, mode] : {std::pair{-1, 0600}, std::pair{1, 0660}, std::pair{-1, 0600}}) {
        fake::state().socketGroup = group;
        UniqueFd fifo(createHostrixFifo());
        struct stat info {};
        ASSERT_EQ(stat(hostrixPath(HostrixFile::Fifo), &info), 0);
        EXPECT_EQ(info.st_mode & 07777, static_cast<mode_t>(mode)) << group;
        EXPECT_TRUE(group < 0 || info.st_gid == static_cast<gid_t>(group)) << info.st_gid;
        chmod(hostrixPath(HostrixFile::Fifo), 0666);
    }
    umask(previous);
}

// A full 256-byte read keeps 255 characters: the value ends at byte 254 and byte 255
// is lost to the terminator; the rest is the next command. Serving runs no duty, but a
// client that asks without pause cannot hold the duties off: events do not move the
// 3 s deadline, and a pass that finds it run down runs the duties without waiting. A
// failed wait (EBADF here, EINTR on a signal) runs no duty.
TEST_F(MainLoopTest, FifoReadKeeps255CharactersAndDutiesRunOnceTheWaitRanDown) {
    UniqueFd writer;
    watchPipe(writer);
    std::string text = std::string(247, ' ') + "log 0x12" + "3" + " log 0x7\n";
    ASSERT_EQ(write(writer.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
    state.nextTick1 = now;
    EXPECT_EQ(printedBy([this] { EXPECT_TRUE(runLoopPass(state) && runLoopPass(state)); }),
              "dbg_level=0x12\ndbg_level=0x7\n");
    EXPECT_EQ(state.nextTick1, now);
    ASSERT_EQ(write(writer.get(), "x", 1), 1);
    state.waitDeadlineMs = 0;  // run down while serving
    EXPECT_TRUE(runLoopPass(state));
    EXPECT_EQ(state.nextTick1, now + 1);
    close(state.fifoFd.get());
    state.nextTick1 = now;
    EXPECT_TRUE(runLoopPass(state));
    state.fifoFd.release();
    EXPECT_EQ(state.nextTick1, now);
}

}  // namespace
