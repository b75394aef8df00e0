// The daemon's own view of the operating system where tests must stay in control:
// clocks, commands whose output is read, kernel files. One backend defines it.
#pragma once

#include <cstdio>
#include <ctime>
#include <memory>
#include <string>
#include <string_view>
#include <vector>
#include <sys/time.h>

int os_clock_monotonic(timespec *ts);  // 0, or -1 when the clock cannot be read
int os_gettimeofday(timeval *tv);      // 0, or -1
time_t os_time();                      // wall-clock seconds, -1 on failure
long os_uptime();                      // sysinfo uptime in seconds, -1 on failure

// A shell command whose standard output is read; close it with os_pclose.
FILE *os_popen_read(const char *command);
int os_pclose(FILE *stream);
struct PipeCloser {
    void operator()(FILE *stream) const { os_pclose(stream); }
};
using UniquePipe = std::unique_ptr<FILE, PipeCloser>;
// A shell command run to completion, like system(3).
int os_system(const char *command);

// A kernel file (/proc, /sys) opened for reading, or nullptr.
FILE *os_open_kernel_file(const char *path);

// Whether a kernel path (/sys) exists: a file, a directory or a link.
bool os_kernel_path_exists(const char *path);
// The names in a kernel directory (/sys), without "." and ".."; empty when unreadable.
std::vector<std::string> os_kernel_dir_entries(const char *path);

// The group that may use the daemon's sockets and FIFO besides root (socket_group in
// the configuration), or -1 when there is none: then only root may.
int os_socket_group();

// Interface names. The core speaks the gateway's names (br0, eth0.2, wlan0); the kernel
// may call the same interface otherwise. Unmapped names are the same on both sides.
// Safe to call from any thread.
std::string os_kernel_ifname(std::string_view gateway);
std::string os_gateway_ifname(std::string_view kernel);
