#include "core/text.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace {

constexpr signed char kFirstPrintable = 0x20;
constexpr signed char kLastPrintable = 0x7E;

bool endsText(char c) { return c == '\0' || c == '\r' || c == '\n'; }

// Compared as signed, so every byte from 0x80 up is below the range.
bool isPrintable(char c) {
    auto value = static_cast<signed char>(c);
    return value >= kFirstPrintable && value <= kLastPrintable;
}

void appendEscaped(std::string &out, char c) {
    if (c == '\\') {
        out += "\\\\";
    } else if (isPrintable(c)) {
        out += c;
    } else {
        char escaped[8];
        std::snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned char>(c));
        out += escaped;
    }
}

}  // namespace

std::string escapedText(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) appendEscaped(out, c);
    return out;
}

int isPrintableString(std::string_view text) {
    for (char c : text) {
        if (endsText(c)) return 1;
        if (!isPrintable(c)) return 0;
    }
    return 1;
}

int isPrintableString(const char *text) {
    if (!text) return 1;
    return isPrintableString(std::string_view(text, std::strlen(text)));
}

void copyText(char *dest, size_t size, std::string_view text) {
    if (size == 0) return;
    text = text.substr(0, std::min(text.find('\0'), size - 1));
    std::memcpy(dest, text.data(), text.size());
    dest[text.size()] = '\0';
}
