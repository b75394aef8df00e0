// Clocks, commands and kernel files on the fake state.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <set>
#include <string>

#include "platform/fake/fake_platform.h"
#include "platform/os.h"

namespace {

// A read-only stream over a private copy of TEXT, released by fclose. In memory, so
// that the benchmarks time the daemon's work and not a file system's.
FILE *streamOf(const std::string &text) {
    FILE *stream = fmemopen(nullptr, std::max<size_t>(text.size(), 1), "w+");
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
    if (fake::state().wallFails) return -1;
    tv->tv_sec = fake::state().wall;
    tv->tv_usec = fake::state().wallUsec;
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

int os_socket_group() { return fake::state().socketGroup; }

FILE *os_open_kernel_file(const char *path) {
    auto &files = fake::state().kernelFiles;
    auto it = files.find(path);
    return it == files.end() ? nullptr : streamOf(it->second);
}

// A kernel directory is every path under it in kernelFiles, or a key of its own.
bool os_kernel_path_exists(const char *path) {
    const std::string wanted(path);
    for (const auto &[name, content] : fake::state().kernelFiles)
        if (name == wanted || name.starts_with(wanted + "/")) return true;
    return false;
}

std::vector<std::string> os_kernel_dir_entries(const char *path) {
    const std::string prefix = std::string(path) + "/";
    std::set<std::string> names;
    for (const auto &[name, content] : fake::state().kernelFiles)
        if (name.starts_with(prefix))
            names.insert(name.substr(prefix.size(), name.find('/', prefix.size()) - prefix.size()));
    return {names.begin(), names.end()};
}

std::string os_kernel_ifname(std::string_view gateway) {
    const auto &names = fake::state().kernelNames;
    auto it = names.find(std::string(gateway));
    return it == names.end() ? std::string(gateway) : it->second;
}

std::string os_gateway_ifname(std::string_view kernel) {
    for (const auto &[gateway, name] : fake::state().kernelNames)
        if (name == kernel) return gateway;
    return std::string(kernel);
}
