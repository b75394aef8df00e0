// The real daemon binary in a temporary HOSTRIX_ROOT: its files, FIFO and signals.
#include <fcntl.h>
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
