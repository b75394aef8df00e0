// The real daemon binary in a temporary HOSTRIX_ROOT: its files, FIFO and signals.
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>

#include "daemon_process.h"
#include "temp_dir.h"

namespace fs = std::filesystem;

namespace {

class DaemonProcessTest : public ::testing::Test {
protected:
    TempDir dir;
    fs::path root{dir.path};
};

TEST_F(DaemonProcessTest, RunsAnswersTheFifoAndCleansUpOnSigterm) {
    DaemonProcess daemon(root);
    daemon.start();
    fs::path pidFile = root / "var/run/hostrix.pid";
    ASSERT_TRUE(eventually([&] { return fs::exists(root / "var/run/hostrix.fifo"); }))
        << daemon.log();
    EXPECT_EQ(readText(pidFile), std::to_string(daemon.pid()) + "\n");
    EXPECT_TRUE(fs::exists(root / "var/run/.hostrix_msg"));

    int fifo = open((root / "var/run/hostrix.fifo").c_str(), O_WRONLY | O_NONBLOCK);
    ASSERT_GE(fifo, 0);
    ASSERT_EQ(write(fifo, "log 0x800\n", 10), 10);
    close(fifo);
    EXPECT_TRUE(eventually([&] {
        return daemon.log().find("dbg_level=0x800\n") != std::string::npos;
    })) << daemon.log();

    ASSERT_EQ(kill(daemon.pid(), SIGTERM), 0);
    EXPECT_EQ(daemon.waitExit(), 0);
    EXPECT_FALSE(fs::exists(pidFile));
    EXPECT_FALSE(fs::exists(root / "var/hostrix"));
}

TEST_F(DaemonProcessTest, SignalsOtherThanTerminateKeepItRunning) {
    DaemonProcess daemon(root);
    daemon.start();
    ASSERT_TRUE(eventually([&] { return fs::exists(root / "var/run/hostrix.fifo"); }));
    for (int signo : {SIGUSR1, SIGUSR2, SIGHUP, SIGPIPE}) kill(daemon.pid(), signo);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(waitpid(daemon.pid(), nullptr, WNOHANG), 0) << daemon.log();
    kill(daemon.pid(), SIGTERM);
    EXPECT_EQ(daemon.waitExit(), 0);
}

// The line of /proc/PID[/task/TID]/status that begins with KEY, as a signal mask.
unsigned long long statusMask(const fs::path &dir, const std::string &key) {
    std::istringstream lines(readText(dir / "status"));
    for (std::string line; std::getline(lines, line);)
        if (line.starts_with(key)) return std::stoull(line.substr(key.size()), nullptr, 16);
    return 0;
}

bool inMask(unsigned long long mask, int signo) {
    return (mask >> (signo - 1)) & 1;
}

// Under umask 000 the sockets and the FIFO are 0600, or 0660 with the socket group's
// gid. SIGPIPE is caught, not ignored, so commands the daemon starts get it at its
// default; the sniffer thread blocks the signals the main loop handles.
TEST_F(DaemonProcessTest, PrivateModesAndSignalDispositions) {
    struct group *daemonGroup = getgrnam("daemon");
    ASSERT_NE(daemonGroup, nullptr);
    for (auto [line, mode] : {std::pair{"", 0600}, std::pair{"socket_group = daemon\n", 0660}}) {
        TempDir caseDir;
        fs::path caseRoot{caseDir.path};
        fs::create_directories(caseRoot / "etc/hostrix");
        std::ofstream(caseRoot / "etc/hostrix/mib.conf") << "counters = off\n" << line;
        DaemonProcess daemon(caseRoot);
        const mode_t previous = umask(0);
        daemon.start();
        umask(previous);
        ASSERT_TRUE(eventually([&] { return fs::exists(caseRoot / "var/run/hostrix.fifo"); }))
            << daemon.log();
        for (const char *file :
             {"var/run/.hostrix_msg", "var/run/.hostapd_action_sock", "var/run/hostrix.fifo"}) {
            struct stat info {};
            ASSERT_EQ(stat((caseRoot / file).c_str(), &info), 0) << file;
            EXPECT_EQ(info.st_mode & 07777, static_cast<mode_t>(mode)) << file << " " << line;
            EXPECT_TRUE(mode != 0660 || info.st_gid == daemonGroup->gr_gid) << file;
        }
        const fs::path proc = "/proc/" + std::to_string(daemon.pid());
        EXPECT_FALSE(inMask(statusMask(proc, "SigIgn:"), SIGPIPE));
        EXPECT_TRUE(inMask(statusMask(proc, "SigCgt:"), SIGPIPE));
        int sniffers = 0;
        for (const auto &task : fs::directory_iterator(proc / "task")) {
            if (readText(task.path() / "comm") != "Sniffer\n") continue;
            ++sniffers;
            for (int signo : {SIGTERM, SIGUSR1, SIGUSR2, SIGHUP, SIGPIPE})
                EXPECT_TRUE(inMask(statusMask(task.path(), "SigBlk:"), signo)) << signo;
        }
        EXPECT_EQ(sniffers, 1) << daemon.log();
        kill(daemon.pid(), SIGTERM);
        EXPECT_EQ(daemon.waitExit(), 0);
    }
}

TEST_F(DaemonProcessTest, ExitsWith255WhenTheControlSocketCannotBeBound) {
    // var/run is a plain file: nothing can be created under it, not even by root.
    fs::create_directories(root / "var");
    std::ofstream(root / "var/run") << "not a directory";
    DaemonProcess daemon(root);
    daemon.start();
    EXPECT_EQ(daemon.waitExit(), 255);
    EXPECT_NE(daemon.log().find("bind error!("), std::string::npos) << daemon.log();
}

TEST_F(DaemonProcessTest, ExitsWith255WhenTheSocketPathIsTooLong) {
    fs::path deep = root / std::string(120, 'd');
    fs::create_directories(deep);
    DaemonProcess daemon(deep);
    daemon.start();
    EXPECT_EQ(daemon.waitExit(), 255);
    EXPECT_NE(daemon.log().find("bind error!("), std::string::npos) << daemon.log();
}

}  // namespace
