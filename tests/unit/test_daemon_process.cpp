// The real daemon binary in a temporary HOSTRIX_ROOT: what only the whole process shows,
// its signal set-up. Its files, FIFO and SIGTERM are the lab's control test's.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
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

// Whether SIGNO is in the mask on the line of /proc/PID[/task/TID]/status beginning KEY.
bool inMask(const fs::path &dir, const std::string &key, int signo) {
    const std::string status = readText(dir / "status");
    size_t at = status.find("\n" + key);
    return at != std::string::npos &&
           (std::stoull(status.substr(at + 1 + key.size()), nullptr, 16) >> (signo - 1)) & 1;
}

// With the sniffer flag stored the sniffer logs its progress from the start. Signals
// other than SIGTERM keep the daemon serving; SIGHUP dumps the sniffer's state. SIGPIPE
// is caught, not ignored, so that commands the daemon starts get it at its default,
// and the sniffer thread leaves the loop's signals to the main thread. The daemon runs
// without counters: the machine's firewall has no table for them.
TEST(DaemonProcessTest, SignalsAreTheMainThreadsAndOnlySigtermEndsTheDaemon) {
    TempDir dir;
    const std::string log = dir.file("daemon.log");
    fs::create_directories(dir.file("etc/hostrix"));
    std::ofstream(dir.file("etc/hostrix/mib.conf")) << "counters = off\n480 = 0x400\n";
    const std::string command =
        "HOSTRIX_ROOT=" + dir.path + " exec " HOSTRIX_BINARY " >" + log + " 2>&1";
    pid_t pid = fork();
    if (pid == 0) {
        execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char *>(nullptr));
        _exit(127);
    }
    const fs::path proc = "/proc/" + std::to_string(pid);
    fs::path sniffer;
    EXPECT_TRUE(eventually([&] {
        for (const auto &task : fs::directory_iterator(proc / "task"))
            if (readText(task.path() / "comm") == "Sniffer\n") sniffer = task.path();
        return !sniffer.empty();
    })) << readText(log);
    EXPECT_TRUE(inMask(proc, "SigCgt:", SIGPIPE) && !inMask(proc, "SigIgn:", SIGPIPE));
    for (int signo : {SIGTERM, SIGUSR1, SIGUSR2, SIGHUP, SIGPIPE})
        EXPECT_TRUE(inMask(sniffer, "SigBlk:", signo)) << signo;
    for (int signo : {SIGUSR1, SIGUSR2, SIGHUP, SIGPIPE}) kill(pid, signo);
    auto logged = [&](const char *line) { return readText(log).find(line) != std::string::npos; };
    EXPECT_TRUE(eventually([&] {
        return logged("] Start Sniffer\n") && logged("====> [Sniffer Information] <====\n");
    })) << readText(log);
    kill(pid, SIGTERM);
    int status = -1;  // stays so if the daemon has to be killed
    if (!eventually([&] { return waitpid(pid, &status, WNOHANG) == pid; }))
        kill(pid, SIGKILL), waitpid(pid, nullptr, 0);
    EXPECT_EQ(status, 0);  // exited 0
}

}  // namespace
