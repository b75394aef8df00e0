// The real daemon binary in a temporary HOSTRIX_ROOT: its files, FIFO and signals.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "daemon_process.h"
#include "temp_dir.h"

namespace fs = std::filesystem;

namespace {

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
TEST(DaemonProcessTest, RunsServesSignalsAndTheFifoAndCleansUpOnSigterm) {
    TempDir dir;
    const fs::path root{dir.path};
    fs::create_directories(root / "etc/hostrix");
    std::ofstream(root / "etc/hostrix/mib.conf") << "counters = off\n480 = 0x400\n";
    DaemonProcess daemon(root);
    daemon.start();
    const fs::path proc = "/proc/" + std::to_string(daemon.pid());
    fs::path sniffer;
    ASSERT_TRUE(eventually([&] {
        for (const auto &task : fs::directory_iterator(proc / "task"))
            if (readText(task.path() / "comm") == "Sniffer\n") sniffer = task.path();
        return !sniffer.empty();
    })) << daemon.log();
    EXPECT_TRUE(inMask(proc, "SigCgt:", SIGPIPE) && !inMask(proc, "SigIgn:", SIGPIPE));
    for (int signo : {SIGTERM, SIGUSR1, SIGUSR2, SIGHUP, SIGPIPE})
        EXPECT_TRUE(inMask(sniffer, "SigBlk:", signo)) << signo;
    EXPECT_EQ(readText(root / "var/run/hostrix.pid"), std::to_string(daemon.pid()) + "\n");
    for (int signo : {SIGUSR1, SIGUSR2, SIGHUP, SIGPIPE}) kill(daemon.pid(), signo);
    int fifo = open((root / "var/run/hostrix.fifo").c_str(), O_WRONLY | O_NONBLOCK);
    ASSERT_EQ(write(fifo, "log 0x800\n", 10), 10);
    close(fifo);
    for (const char *line :
         {"dbg_level=0x800\n", "] Start Sniffer\n", "====> [Sniffer Information] <====\n"})
        EXPECT_TRUE(eventually([&] { return daemon.log().find(line) != std::string::npos; }))
            << daemon.log();
    ASSERT_EQ(kill(daemon.pid(), SIGTERM), 0);
    EXPECT_EQ(daemon.waitExit(), 0);
    EXPECT_FALSE(fs::exists(root / "var/run/hostrix.pid") || fs::exists(root / "var/hostrix"));
}

// var/run is a plain file: nothing can be created under it, not even by root.
TEST(DaemonProcessTest, ExitsWith255WhenTheControlSocketCannotBeBound) {
    TempDir dir;
    fs::create_directories(fs::path(dir.path) / "var");
    std::ofstream(dir.file("var/run")) << "not a directory";
    DaemonProcess daemon(dir.path);
    daemon.start();
    EXPECT_EQ(daemon.waitExit(), 255);
    EXPECT_NE(daemon.log().find("bind error!("), std::string::npos) << daemon.log();
}

}  // namespace
