// Command-line words of hostrixctl: MAC addresses, numbers, intervals and the
// split of argv into command, positional arguments and options. Pure functions.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "outcome.h"

using MacAddress = std::array<uint8_t, 6>;

// "aa:bb:cc:dd:ee:ff" or "aa-bb-cc-dd-ee-ff", either case, two hex digits a group.
std::optional<MacAddress> parseMac(std::string_view text);
// Lower-case, colon-separated.
std::string formatMac(const uint8_t *mac);

// Decimal, or hexadecimal after "0x"; no sign or blanks; at most MAX.
std::optional<uint32_t> parseNumber(std::string_view text, uint32_t max);

// Seconds, optionally with up to three decimals ("2", "0.25"), in milliseconds.
std::optional<uint32_t> parseSeconds(std::string_view text);

enum OptionBit : unsigned {
    kOptJson = 1u << 0,
    kOptNewest = 1u << 1,
    kOptCount = 1u << 2,
    kOptInterval = 1u << 3,
};

inline constexpr uint32_t kDefaultIntervalMs = 1000;
inline constexpr uint32_t kMaxIntervalMs = 3600 * 1000;

struct CommandLine {
    std::string command;            // empty: none given
    std::vector<std::string> args;  // positional words after the command
    unsigned seen = 0;              // OptionBit values given
    bool help = false;              // -h or --help anywhere
    bool json = false;
    bool newest = false;
    uint32_t count = 0;  // watch: stop after this many events; 0 = never
    uint32_t intervalMs = kDefaultIntervalMs;
};

// Options may stand anywhere before "--"; everything after it is positional.
Outcome parseCommandLine(const std::vector<std::string_view> &words, CommandLine &out);

// The first option in SEEN that ALLOWED does not contain, as written ("--json"), or "".
std::string_view firstDisallowedOption(unsigned seen, unsigned allowed);
