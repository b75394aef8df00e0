// The operating-system view of os.h, straight onto the C library.
#include <dirent.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>

#include <cstdlib>
#include <string_view>

#include "platform/os.h"

int os_clock_monotonic(timespec *ts) {
    return ts && clock_gettime(CLOCK_MONOTONIC, ts) == 0 ? 0 : -1;
}

int os_gettimeofday(timeval *tv) {
    return tv && gettimeofday(tv, nullptr) == 0 ? 0 : -1;
}

time_t os_time() {
    return time(nullptr);
}

long os_uptime() {
    struct sysinfo info {};
    return sysinfo(&info) == 0 ? info.uptime : -1;
}

// "e": the stream's descriptor must not leak into commands the daemon starts later.
FILE *os_popen_read(const char *command) {
    return command ? popen(command, "re") : nullptr;
}

int os_pclose(FILE *stream) {
    return stream ? pclose(stream) : -1;
}

int os_system(const char *command) {
    return command ? std::system(command) : -1;
}

FILE *os_open_kernel_file(const char *path) {
    return path ? std::fopen(path, "re") : nullptr;
}

bool os_kernel_path_exists(const char *path) {
    struct stat info {};
    return path && lstat(path, &info) == 0;
}

std::vector<std::string> os_kernel_dir_entries(const char *path) {
    std::vector<std::string> names;
    std::unique_ptr<DIR, int (*)(DIR *)> dir(path ? opendir(path) : nullptr, closedir);
    if (!dir) return names;
    while (const dirent *entry = readdir(dir.get())) {
        std::string_view name(entry->d_name);
        if (name != "." && name != "..") names.emplace_back(name);
    }
    return names;
}
