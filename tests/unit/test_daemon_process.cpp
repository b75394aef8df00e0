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

#include "temp_dir.h"

namespace fs = std::filesystem;

namespace {

// Polls COND up to about five seconds; the daemon's loop turns every three.
bool eventually(const std::function<bool()> &cond) {
    for (int i = 0; i < 100; ++i) {
        if (cond()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return cond();
}

class DaemonProcess {
public:
    explicit DaemonProcess(fs::path root) : root_(std::move(root)) {}
    ~DaemonProcess() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }

    void start() {
        pid_ = fork();
        if (pid_ == 0) {
            setenv("HOSTRIX_ROOT", root_.c_str(), 1);
            int out = open(logPath().c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            dup2(out, STDOUT_FILENO);
            dup2(out, STDERR_FILENO);
            execl(HOSTRIX_BINARY, HOSTRIX_BINARY, static_cast<char *>(nullptr));
            _exit(127);
        }
    }

    // Exit status once the process has ended within about five seconds, else -1.
    int waitExit() {
        int status = 0;
        bool ended = eventually([&] { return waitpid(pid_, &status, WNOHANG) == pid_; });
        if (!ended) return -1;
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    pid_t pid() const { return pid_; }
    fs::path logPath() const { return root_ / "daemon.log"; }
    std::string log() const { return readText(logPath()); }

private:
    fs::path root_;
    pid_t pid_ = -1;
};

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
