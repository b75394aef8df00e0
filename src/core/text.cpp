#include "core/text.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace {

constexpr signed char kFirstPrintable = 0x20;
constexpr signed char kLastPrintable = 0x7E;

// Compared as signed, so every byte from 0x80 up is below the range.
constexpr bool isPrintable(char c) {
    auto value = static_cast<signed char>(c);
    return value >= kFirstPrintable && value <= kLastPrintable;
}

// Discovery checks every IPv6 neighbour line of every cycle: one lookup a byte.
enum class TextByte : uint8_t { Bad, Printable, End };
constexpr auto kTextBytes = [] {
    std::array<TextByte, 256> kinds{};
    for (int c = 0; c < 256; ++c) {
        const char byte = static_cast<char>(c);
        kinds[c] = byte == '\0' || byte == '\r' || byte == '\n' ? TextByte::End
                   : isPrintable(byte)                          ? TextByte::Printable
                                                                : TextByte::Bad;
    }
    return kinds;
}();

TextByte kindOf(char c) { return kTextBytes[static_cast<unsigned char>(c)]; }

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
    for (char c : text)
        if (kindOf(c) != TextByte::Printable) return kindOf(c) == TextByte::End;
    return 1;
}

int isPrintableString(const char *text) {
    if (!text) return 1;
    while (kindOf(*text) == TextByte::Printable) ++text;
    return kindOf(*text) == TextByte::End;
}

void copyText(char *dest, size_t size, std::string_view text) {
    if (size == 0) return;
    text = text.substr(0, std::min(text.find('\0'), size - 1));
    std::memcpy(dest, text.data(), text.size());
    dest[text.size()] = '\0';
}
