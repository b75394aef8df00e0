// Small readers the linux backend's file and text decoders share.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>

// A value of type T at OFFSET; the caller has checked that it lies within BYTES.
template <typename T>
T readAt(std::span<const uint8_t> bytes, size_t offset) {
    T value;
    std::memcpy(&value, bytes.data() + offset, sizeof value);
    return value;
}

// What stat says about a file; any difference means it was replaced or rewritten.
struct FileStamp {
    int error = 0;  // errno of stat, 0 when it succeeded
    dev_t dev = 0;
    ino_t ino = 0;
    off_t size = 0;
    time_t sec = 0;
    long nsec = 0;
    bool operator==(const FileStamp &) const = default;
};
FileStamp fileStampOf(const struct stat &st);
FileStamp statFileStamp(const char *path);

// Reads up to LIMIT bytes, retrying interrupted reads; the count, or -1 with errno.
ssize_t readUpTo(int fd, char *buffer, size_t limit);

// The next blank-separated (space, tab, CR) token of TEXT, which is advanced past
// it; "" at the end.
std::string_view nextToken(std::string_view &text);

// Colon-separated hex MAC text, not all zero, into MAC.
bool parseMacText(std::string_view text, uint8_t *mac);
