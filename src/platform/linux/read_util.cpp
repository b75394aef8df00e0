#include "platform/linux/read_util.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/mib.h"

namespace {

constexpr size_t kMacTextBytes = 17;  // "xx:xx:xx:xx:xx:xx"
constexpr std::string_view kBlanks = " \t\r";

}  // namespace

ssize_t readUpTo(int fd, char *buffer, size_t limit) {
    size_t total = 0;
    while (total < limit) {
        ssize_t got = read(fd, buffer + total, limit - total);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return -1;
        if (got == 0) break;
        total += static_cast<size_t>(got);
    }
    return static_cast<ssize_t>(total);
}

std::string_view nextToken(std::string_view &text) {
    text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
    size_t end = std::min(text.find_first_of(kBlanks), text.size());
    std::string_view token = text.substr(0, end);
    text.remove_prefix(end);
    return token;
}

bool parseMacText(std::string_view text, uint8_t *mac) {
    if (text.size() > kMacTextBytes) return false;
    char buffer[kMacTextBytes + 1] = {};
    std::memcpy(buffer, text.data(), text.size());
    return convertMacFormat(buffer, mac) == 1 && !isZeroMac(mac);
}

FileStamp fileStampOf(const struct stat &st) {
    return {0, st.st_dev, st.st_ino, st.st_size, st.st_mtim.tv_sec, st.st_mtim.tv_nsec};
}

FileStamp statFileStamp(const char *path) {
    struct stat st {};
    if (stat(path, &st) != 0) return FileStamp{errno};
    return fileStampOf(st);
}
