// The operating-system view of os.h, straight onto the C library. Command lines the
// backend knows are carried out natively (native_commands.h); the rest go to the shell.
#include <dirent.h>
#include <grp.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "core/paths.h"
#include "core/unique_fd.h"
#include "platform/linux/mib_store.h"
#include "platform/linux/native_commands.h"
#include "platform/os.h"

namespace {

// What system(3) returns for a command that exited with status 1.
constexpr int kNativeFailedStatus = W_EXITCODE(1, 0);
constexpr size_t kGroupBufferBytes = 4096;

// A native command's output, readable like a pipe's: an anonymous file at its start.
FILE *streamOf(const std::string &text) {
    UniqueFd fd(memfd_create("hostrix-output", MFD_CLOEXEC));
    if (!fd.valid()) return nullptr;
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t put = write(fd.get(), text.data() + done, text.size() - done);
        if (put <= 0) return nullptr;
        done += static_cast<size_t>(put);
    }
    FILE *stream = lseek(fd.get(), 0, SEEK_SET) == 0 ? fdopen(fd.get(), "r") : nullptr;
    if (stream) (void)fd.release();
    return stream;
}

// Only popen's streams read from a pipe.
bool isPipe(FILE *stream) {
    struct stat info {};
    return fstat(fileno(stream), &info) == 0 && S_ISFIFO(info.st_mode);
}

// The group's id, or -1 when the system has no such group.
int lookUpGroup(const std::string &name) {
    group entry{};
    group *found = nullptr;
    char buffer[kGroupBufferBytes];
    if (getgrnam_r(name.c_str(), &entry, buffer, sizeof buffer, &found) != 0 || !found) return -1;
    return static_cast<int>(found->gr_gid);
}

// An unknown group is reported once for each line that names it, like a malformed line.
void reportUnknownGroup(const MibConfig &config) {
    static std::string reported;
    std::string line = std::to_string(config.socketGroupLine) + ":" + config.socketGroup;
    if (line == reported) return;
    reported = line;
    (void)std::fprintf(stderr, "hostrix: %s:%u: unknown group \"%s\" (sockets stay 0600)\n",
                       hostrixPath(HostrixFile::Config), config.socketGroupLine,
                       config.socketGroup.c_str());
}

}  // namespace

int os_socket_group() {
    const MibConfig &config = mibConfigCurrent();
    if (config.socketGroup.empty()) return -1;
    const int gid = lookUpGroup(config.socketGroup);
    if (gid < 0) reportUnknownGroup(config);
    return gid;
}

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
// A native command that fails is a command that could not be started.
FILE *os_popen_read(const char *command) {
    if (!command) return nullptr;
    NativeResult result;
    if (!runNativeIfKnown(command, result)) return popen(command, "re");
    return result.error == 0 ? streamOf(result.output) : nullptr;
}

int os_pclose(FILE *stream) {
    if (!stream) return -1;
    return isPipe(stream) ? pclose(stream) : std::fclose(stream);
}

int os_system(const char *command) {
    if (!command) return -1;
    NativeResult result;
    if (!runNativeIfKnown(command, result)) return std::system(command);
    printNativeOutput(result);
    return result.error == 0 ? 0 : kNativeFailedStatus;
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
