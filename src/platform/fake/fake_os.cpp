// Clocks, commands and kernel files on the fake state.
#include <cstring>
#include <string>

#include "platform/fake/fake_platform.h"
#include "platform/os.h"

namespace {

// A read-only stream over a private copy of TEXT, released by fclose.
FILE *streamOf(const std::string &text) {
    FILE *stream = tmpfile();
    if (!stream) return nullptr;
    std::fwrite(text.data(), 1, text.size(), stream);
    std::rewind(stream);
    return stream;
}

}  // namespace

int os_clock_monotonic(timespec *ts) {
    if (fake::state().monotonicFails) return -1;
    *ts = fake::state().monotonic;
    return 0;
}

int os_gettimeofday(timeval *tv) {
    tv->tv_sec = fake::state().wall;
    tv->tv_usec = 0;
    return 0;
}

time_t os_time() { return fake::state().wall; }

long os_uptime() { return fake::state().uptime; }

FILE *os_popen_read(const char *command) {
    fake::recordCommand(command);
    auto &outputs = fake::state().commandOutput;
    auto it = outputs.find(command);
    return streamOf(it == outputs.end() ? std::string() : it->second);
}

int os_pclose(FILE *stream) { return stream ? std::fclose(stream) : -1; }

int os_system(const char *command) {
    fake::recordCommand(command);
    return 0;
}

FILE *os_open_kernel_file(const char *path) {
    auto &files = fake::state().kernelFiles;
    auto it = files.find(path);
    return it == files.end() ? nullptr : streamOf(it->second);
}
