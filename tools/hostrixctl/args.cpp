#include "args.h"

#include <cstdio>

namespace {

constexpr size_t kMacTextLen = 17;  // six groups of two digits and five separators
constexpr uint32_t kMillisPerSecond = 1000;
constexpr size_t kMaxDecimals = 3;

struct OptionName {
    OptionBit bit;
    std::string_view name;
    bool takesValue;
};

constexpr std::array<OptionName, 4> kOptions = {{
    {kOptJson, "--json", false},
    {kOptNewest, "--newest", false},
    {kOptCount, "--count", true},
    {kOptInterval, "--interval", true},
}};

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Digits of BASE only; stops before overflowing past MAX.
std::optional<uint32_t> parseDigits(std::string_view text, uint32_t base, uint32_t max) {
    if (text.empty()) return std::nullopt;
    uint64_t value = 0;
    for (char c : text) {
        int digit = hexDigit(c);
        if (digit < 0 || static_cast<uint32_t>(digit) >= base) return std::nullopt;
        value = value * base + static_cast<uint32_t>(digit);
        if (value > max) return std::nullopt;
    }
    return static_cast<uint32_t>(value);
}

const OptionName *findOption(std::string_view name) {
    for (const OptionName &option : kOptions)
        if (option.name == name) return &option;
    return nullptr;
}

Outcome applyOption(const OptionName &option, std::string_view value, CommandLine &out) {
    out.seen |= option.bit;
    switch (option.bit) {
        case kOptJson:
            out.json = true;
            return Outcome::success();
        case kOptNewest:
            out.newest = true;
            return Outcome::success();
        case kOptCount: {
            auto count = parseNumber(value, UINT32_MAX);
            if (!count)
                return Outcome::usage("--count needs a whole number, got '" + std::string(value) +
                                      "'");
            out.count = *count;
            return Outcome::success();
        }
        case kOptInterval: {
            auto ms = parseSeconds(value);
            if (!ms || *ms == 0 || *ms > kMaxIntervalMs)
                return Outcome::usage("--interval needs seconds between 0.001 and 3600, got '" +
                                      std::string(value) + "'");
            out.intervalMs = *ms;
            return Outcome::success();
        }
    }
    return Outcome::success();
}

// Takes the option at WORDS[I] (and its value) and advances I past them.
Outcome takeOption(const std::vector<std::string_view> &words, size_t &i, CommandLine &out) {
    std::string_view word = words[i];
    size_t eq = word.find('=');
    std::string_view name = word.substr(0, eq);
    const OptionName *option = findOption(name);
    if (!option) return Outcome::usage("unknown option '" + std::string(word) + "'");
    std::string_view value;
    if (eq != std::string_view::npos) {
        if (!option->takesValue) return Outcome::usage(std::string(name) + " takes no value");
        value = word.substr(eq + 1);
    } else if (option->takesValue) {
        if (i + 1 >= words.size()) return Outcome::usage(std::string(name) + " needs a value");
        value = words[++i];
    }
    ++i;
    return applyOption(*option, value, out);
}

void addPositional(std::string_view word, CommandLine &out) {
    if (out.command.empty()) {
        out.command = word;
    } else {
        out.args.emplace_back(word);
    }
}

}  // namespace

std::optional<MacAddress> parseMac(std::string_view text) {
    if (text.size() != kMacTextLen) return std::nullopt;
    char separator = text[2];
    if (separator != ':' && separator != '-') return std::nullopt;
    MacAddress mac{};
    for (size_t group = 0; group < mac.size(); ++group) {
        size_t at = group * 3;
        if (group > 0 && text[at - 1] != separator) return std::nullopt;
        int high = hexDigit(text[at]);
        int low = hexDigit(text[at + 1]);
        if (high < 0 || low < 0) return std::nullopt;
        mac[group] = static_cast<uint8_t>(high * 16 + low);
    }
    return mac;
}

std::string formatMac(const uint8_t *mac) {
    char text[kMacTextLen + 1];
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2],
                  mac[3], mac[4], mac[5]);
    return text;
}

std::optional<uint32_t> parseNumber(std::string_view text, uint32_t max) {
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X'))
        return parseDigits(text.substr(2), 16, max);
    return parseDigits(text, 10, max);
}

std::optional<uint32_t> parseSeconds(std::string_view text) {
    size_t dot = text.find('.');
    std::string_view whole = text.substr(0, dot);
    std::string_view decimals = dot == std::string_view::npos ? "" : text.substr(dot + 1);
    if (dot != std::string_view::npos && (decimals.empty() || decimals.size() > kMaxDecimals))
        return std::nullopt;
    auto seconds = parseDigits(whole, 10, kMaxIntervalMs / kMillisPerSecond);
    if (!seconds) return std::nullopt;
    uint32_t millis = 0;
    uint32_t scale = kMillisPerSecond;
    for (char c : decimals) {
        if (c < '0' || c > '9') return std::nullopt;
        scale /= 10;
        millis += static_cast<uint32_t>(c - '0') * scale;
    }
    return *seconds * kMillisPerSecond + millis;
}

Outcome parseCommandLine(const std::vector<std::string_view> &words, CommandLine &out) {
    size_t i = 0;
    while (i < words.size()) {
        std::string_view word = words[i];
        if (word == "--") {
            for (++i; i < words.size(); ++i) addPositional(words[i], out);
            break;
        }
        if (word == "-h" || word == "--help") {
            out.help = true;
            ++i;
        } else if (word.size() > 1 && word[0] == '-') {
            Outcome taken = takeOption(words, i, out);
            if (!taken.ok()) return taken;
        } else {
            addPositional(word, out);
            ++i;
        }
    }
    return Outcome::success();
}

std::string_view firstDisallowedOption(unsigned seen, unsigned allowed) {
    for (const OptionName &option : kOptions)
        if ((seen & option.bit) && !(allowed & option.bit)) return option.name;
    return {};
}
