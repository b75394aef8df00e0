// The real daemon binary run in a temporary HOSTRIX_ROOT, for the process tests.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

#include "temp_dir.h"

// Polls COND up to about five seconds; the daemon's loop turns every three.
inline bool eventually(const std::function<bool()> &cond) {
    for (int i = 0; i < 100; ++i) {
        if (cond()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return cond();
}

class DaemonProcess {
public:
    explicit DaemonProcess(std::filesystem::path root) : root_(std::move(root)) {}
    ~DaemonProcess() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    DaemonProcess(const DaemonProcess &) = delete;
    DaemonProcess &operator=(const DaemonProcess &) = delete;

    // Without a configuration of its own the daemon gets one that keeps it off the
    // machine's firewall: no counter table in the real network namespace.
    void start() {
        std::filesystem::path config = root_ / "etc/hostrix/mib.conf";
        if (!std::filesystem::exists(config)) {
            std::filesystem::create_directories(config.parent_path());
            std::ofstream(config) << "counters = off\n";
        }
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
    std::filesystem::path logPath() const { return root_ / "daemon.log"; }
    std::string log() const { return readText(logPath()); }

private:
    std::filesystem::path root_;
    pid_t pid_ = -1;
};
