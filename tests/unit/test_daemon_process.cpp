// The real daemon binary in a temporary HOSTRIX_ROOT: what only the whole process shows,
// its signal set-up. Its files, FIFO and SIGTERM are the lab's control test's.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "temp_dir.h"

namespace fs = std::filesystem;

namespace {

// Polls COND up to about five seconds; the daemon's loop turns every three.
template <typename F>
bool eventually(F &&cond) {
    for (int i = 0; i < 100; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(50)))
        if (cond()) return true;
    return false;
}

// The daemon with CONFIG (always without counters: no table in the machine's firewall),
// its output in LOG, killed with the test if still running.
class DaemonProcess {
   public:
    DaemonProcess(const TempDir &dir, const std::string &config) : log(dir.file("daemon.log")) {
        fs::create_directories(dir.file("etc/hostrix"));
        std::ofstream(dir.file("etc/hostrix/mib.conf")) << "counters = off\n" << config;
        pid = fork();
        if (pid == 0) {
            setenv("HOSTRIX_ROOT", dir.path.c_str(), 1);
            int out = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            dup2(out, STDOUT_FILENO);
            dup2(out, STDERR_FILENO);
            execl(HOSTRIX_BINARY, HOSTRIX_BINARY, static_cast<char *>(nullptr));
            _exit(127);
        }
    }
    ~DaemonProcess() {
        if (pid > 0 && kill(pid, SIGKILL) == 0) waitpid(pid, nullptr, 0);
    }
    // Exit status once the process has ended within about five seconds, else -1.
    int waitExit() {
        int status = 0;
        if (!eventually([&] { return waitpid(pid, &status, WNOHANG) == pid; })) return -1;
        pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    bool logged(const std::string &line) const {
        return eventually([&] { return readText(log).find(line) != std::string::npos; });
    }

    const std::string log;
    pid_t pid = -1;
};

// Whether SIGNO is in the mask on the line of /proc/PID[/task/TID]/status beginning KEY.
bool inMask(const fs::path &dir, const std::string &key, int signo) {
    std::istringstream lines(readText(dir / "status"));
    for (std::string line; std::getline(lines, line);)
        if (line.starts_with(key))
            return (std::stoull(line.substr(key.size()), nullptr, 16) >> (signo - 1)) & 1;
    return false;
}

// With the sniffer flag stored the sniffer logs its progress from the start. Signals
// other than SIGTERM keep the daemon serving; SIGHUP dumps the sniffer's state. SIGPIPE
// is caught, not ignored, so that commands the daemon starts get it at its default,
// and the sniffer thread leaves the loop's signals to the main thread.
TEST(DaemonProcessTest, SignalsAreTheMainThreadsAndOnlySigtermEndsTheDaemon) {
    TempDir dir;
    DaemonProcess daemon(dir, "480 = 0x400\n");
    const fs::path proc = "/proc/" + std::to_string(daemon.pid);
    fs::path sniffer;
    ASSERT_TRUE(eventually([&] {
        for (const auto &task : fs::directory_iterator(proc / "task"))
            if (readText(task.path() / "comm") == "Sniffer\n") sniffer = task.path();
        return !sniffer.empty();
    })) << readText(daemon.log);
    EXPECT_TRUE(inMask(proc, "SigCgt:", SIGPIPE) && !inMask(proc, "SigIgn:", SIGPIPE));
    for (int signo : {SIGTERM, SIGUSR1, SIGUSR2, SIGHUP, SIGPIPE})
        EXPECT_TRUE(inMask(sniffer, "SigBlk:", signo)) << signo;
    for (int signo : {SIGUSR1, SIGUSR2, SIGHUP, SIGPIPE}) kill(daemon.pid, signo);
    EXPECT_TRUE(daemon.logged("] Start Sniffer\n") &&
                daemon.logged("====> [Sniffer Information] <====\n"))
        << readText(daemon.log);
    ASSERT_EQ(kill(daemon.pid, SIGTERM), 0);
    EXPECT_EQ(daemon.waitExit(), 0);
}

}  // namespace
