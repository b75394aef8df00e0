#include "platform/linux/mib_config.h"

#include <climits>
#include <span>
#include <string>
#include <utility>

namespace {

// Why a line was skipped; empty when it was applied.
using Reason = std::string;

constexpr std::string_view kBlank = " \t\r";
constexpr size_t kQuoteMax = 40;  // of a value echoed back in a message

std::string_view trim(std::string_view text) {
    size_t first = text.find_first_not_of(kBlank);
    if (first == std::string_view::npos) return {};
    size_t last = text.find_last_not_of(kBlank);
    return text.substr(first, last - first + 1);
}

// Takes the next blank-separated word off the front of REST.
bool nextWord(std::string_view &rest, std::string_view &word) {
    size_t first = rest.find_first_not_of(kBlank);
    if (first == std::string_view::npos) return false;
    rest.remove_prefix(first);
    size_t end = rest.find_first_of(kBlank);
    word = rest.substr(0, end);
    rest.remove_prefix(word.size());
    return true;
}

// TEXT in quotes for a message: clipped, control bytes shown as '?'.
std::string quoted(std::string_view text) {
    std::string out = "\"";
    for (char c : text.substr(0, kQuoteMax)) {
        auto byte = static_cast<unsigned char>(c);
        out += (byte < 0x20 || byte == 0x7f) ? '?' : c;
    }
    if (text.size() > kQuoteMax) out += "...";
    return out + "\"";
}

int digitValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Digits of BASE only, no sign or blank; MAX is at most 2^32 - 1, so no overflow.
bool parseDigits(std::string_view text, int base, uint64_t max, uint64_t &out) {
    if (text.empty()) return false;
    uint64_t value = 0;
    for (char c : text) {
        int digit = digitValue(c);
        if (digit < 0 || digit >= base) return false;
        value = value * static_cast<uint64_t>(base) + static_cast<uint64_t>(digit);
        if (value > max) return false;
    }
    out = value;
    return true;
}

// Base chosen like strtoul with base 0: "0x" hex, leading "0" octal, else decimal.
bool parseUnsigned(std::string_view text, uint64_t max, uint64_t &out) {
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X'))
        return parseDigits(text.substr(2), 16, max, out);
    if (text.size() > 1 && text[0] == '0') return parseDigits(text.substr(1), 8, max, out);
    return parseDigits(text, 10, max, out);
}

Reason applySetting(std::string_view key, std::string_view value, MibConfig &cfg) {
    uint64_t id = 0;
    uint64_t number = 0;
    if (!parseDigits(key, 10, INT_MAX, id)) return "bad setting id " + quoted(key);
    if (!parseUnsigned(value, UINT32_MAX, number))
        return "bad number " + quoted(value) + " for setting " + std::string(key);
    cfg.settings[static_cast<int>(id)] = static_cast<uint32_t>(number);
    return {};
}

Reason applyChainAttribute(std::string_view word, MibChainRow &row) {
    size_t eq = word.find('=');
    std::string_view name = word.substr(0, eq);
    std::string_view text = eq == std::string_view::npos ? "" : word.substr(eq + 1);
    uint64_t value = 0;
    bool wide = name == "ports";
    if (name != "enable" && name != "mode" && !wide) return "bad attribute " + quoted(word);
    if (!parseUnsigned(text, wide ? UINT32_MAX : UINT8_MAX, value))
        return "bad value " + quoted(text) + " for " + std::string(name);
    if (wide) row.ports = static_cast<uint32_t>(value);
    if (name == "enable") row.enable = static_cast<uint8_t>(value);
    if (name == "mode") row.mode = static_cast<uint8_t>(value);
    return {};
}

Reason applyChainRow(std::string_view chain, std::string_view value, MibConfig &cfg) {
    uint64_t id = 0;
    if (!parseDigits(chain, 10, INT_MAX, id) || id != kChainWanConnections)
        return "unknown chain " + quoted(chain);
    if (cfg.wanConnections.size() >= kMibMaxChainRows)
        return "more than " + std::to_string(kMibMaxChainRows) + " rows in chain 3004";
    MibChainRow row;
    std::string_view word;
    while (nextWord(value, word)) {
        Reason reason = applyChainAttribute(word, row);
        if (!reason.empty()) return reason + " in chain 3004 row";
    }
    cfg.wanConnections.push_back(row);
    return {};
}

// Fills NAMES from the words of VALUE; names the line leaves out become empty.
Reason applyNameList(std::string_view value, std::span<std::string> names) {
    static_assert(kWlanRootCount <= kLanPortCount);
    std::array<std::string_view, kLanPortCount> found{};
    size_t count = 0;
    std::string_view word;
    while (nextWord(value, word)) {
        if (count == names.size())
            return "more than " + std::to_string(names.size()) + " interface names";
        if (!mibValidIfName(word)) return "bad interface name " + quoted(word);
        found[count++] = word;
    }
    for (size_t i = 0; i < names.size(); ++i) names[i] = found[i];
    return {};
}

Reason applyLeaseFile(std::string_view value, MibConfig &cfg) {
    if (value.empty() || value[0] != '/') return "lease_file must be an absolute path";
    cfg.leaseFile = value;
    return {};
}

Reason applyStations(std::string_view value, MibConfig &cfg) {
    constexpr std::string_view kDirPrefix = "dir:";
    if (value == "nl80211") {
        cfg.stations = MibStationSource::Nl80211;
        return {};
    }
    std::string_view dir = value.substr(0, kDirPrefix.size()) == kDirPrefix
                               ? trim(value.substr(kDirPrefix.size()))
                               : std::string_view{};
    if (dir.empty()) return "bad station source " + quoted(value) + " (nl80211 or dir:PATH)";
    cfg.stations = MibStationSource::Directory;
    cfg.stationDir = dir;
    return {};
}

// A key that takes one of two words.
template <typename Choice>
struct TwoWords {
    const char *what;
    std::pair<std::string_view, Choice> first, second;
};

template <typename Choice>
Reason applyOneOf(std::string_view value, const TwoWords<Choice> &words, Choice &field) {
    for (const auto &[word, choice] : {words.first, words.second}) {
        if (value != word) continue;
        field = choice;
        return {};
    }
    return "bad " + std::string(words.what) + " " + quoted(value) + " (" +
           std::string(words.first.first) + " or " + std::string(words.second.first) + ")";
}

Reason applyCounters(std::string_view value, MibConfig &cfg) {
    return applyOneOf(value,
                      TwoWords<MibCounterSource>{"counter source",
                                                 {"nftables", MibCounterSource::Nftables},
                                                 {"off", MibCounterSource::Off}},
                      cfg.counters);
}

Reason applyCommands(std::string_view value, MibConfig &cfg) {
    return applyOneOf(value,
                      TwoWords<MibCommandMode>{"command mode",
                                               {"native", MibCommandMode::Native},
                                               {"shell", MibCommandMode::Shell}},
                      cfg.commands);
}

Reason applyKernelName(std::string_view gateway, std::string_view kernel, MibConfig &cfg) {
    if (!mibValidIfName(kernel)) return "bad kernel interface name " + quoted(kernel);
    if (!cfg.ifnames.add(gateway, kernel))
        return "kernel interface " + quoted(kernel) + " is already mapped to " +
               quoted(cfg.ifnames.gatewayOf(kernel));
    return {};
}

bool validGroupName(std::string_view name) {
    if (name.empty() || name.size() > kMibMaxGroupBytes || name[0] == '-') return false;
    for (char c : name) {
        const bool letterOrDigit =
            (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
        if (!letterOrDigit && c != '_' && c != '-' && c != '.') return false;
    }
    return true;
}

Reason applySocketGroup(std::string_view value, unsigned lineNo, MibConfig &cfg) {
    if (!validGroupName(value)) return "bad group name " + quoted(value);
    cfg.socketGroup = value;
    cfg.socketGroupLine = lineNo;
    return {};
}

Reason applySsid(std::string_view ifname, std::string_view value, MibConfig &cfg) {
    if (value.size() > kMibMaxSsidBytes)
        return "SSID of " + std::string(ifname) + " longer than 32 bytes";
    cfg.ssids.insert_or_assign(std::string(ifname), std::string(value));
    return {};
}

Reason applyPortId(std::map<std::string, int, std::less<>> &ids, std::string_view ifname,
                   std::string_view value) {
    uint64_t id = 0;
    if (!parseUnsigned(value, INT_MAX, id))
        return "bad port id " + quoted(value) + " for " + std::string(ifname);
    ids.insert_or_assign(std::string(ifname), static_cast<int>(id));
    return {};
}

// Keys of the form "prefix.IFNAME".
Reason applyInterfaceKey(std::string_view prefix, std::string_view ifname, std::string_view value,
                         MibConfig &cfg) {
    if (!mibValidIfName(ifname)) return "bad interface name " + quoted(ifname);
    if (prefix == "ssid") return applySsid(ifname, value, cfg);
    if (prefix == "phy") return applyPortId(cfg.phyIds, ifname, value);
    if (prefix == "ifname") return applyKernelName(ifname, value, cfg);
    return applyPortId(cfg.logicIds, ifname, value);
}

Reason applyKey(std::string_view key, std::string_view value, unsigned lineNo, MibConfig &cfg) {
    if (key[0] >= '0' && key[0] <= '9') return applySetting(key, value, cfg);
    if (key == "lan_ports") return applyNameList(value, cfg.lanPorts);
    if (key == "wlan_roots") return applyNameList(value, cfg.wlanRoots);
    if (key == "lease_file") return applyLeaseFile(value, cfg);
    if (key == "stations") return applyStations(value, cfg);
    if (key == "counters") return applyCounters(value, cfg);
    if (key == "commands") return applyCommands(value, cfg);
    if (key == "socket_group") return applySocketGroup(value, lineNo, cfg);
    size_t dot = key.find('.');
    std::string_view prefix = key.substr(0, dot);
    std::string_view rest = dot == std::string_view::npos ? "" : key.substr(dot + 1);
    if (dot != std::string_view::npos && prefix == "chain") return applyChainRow(rest, value, cfg);
    if (dot != std::string_view::npos && (prefix == "ssid" || prefix == "phy" || prefix == "logic" ||
                                     prefix == "ifname"))
        return applyInterfaceKey(prefix, rest, value, cfg);
    return "unknown key " + quoted(key);
}

Reason applyLine(std::string_view line, unsigned lineNo, MibConfig &cfg) {
    if (line.size() > kMibMaxLineBytes)
        return "line longer than " + std::to_string(kMibMaxLineBytes) + " bytes";
    if (line.find('\0') != std::string_view::npos) return "NUL byte in line";
    line = trim(line.substr(0, line.find('#')));
    if (line.empty()) return {};
    size_t eq = line.find('=');
    if (eq == std::string_view::npos) return "missing '=' after " + quoted(line);
    std::string_view key = trim(line.substr(0, eq));
    if (key.empty()) return "empty key";
    return applyKey(key, trim(line.substr(eq + 1)), lineNo, cfg);
}

}  // namespace

bool mibValidIfName(std::string_view name) {
    if (name.empty() || name.size() > kMibMaxIfNameBytes || name == "." || name == "..")
        return false;
    for (char c : name) {
        auto byte = static_cast<unsigned char>(c);
        if (byte <= ' ' || byte == 0x7f || c == '/' || c == ':') return false;
    }
    return true;
}

unsigned parseMibConfig(std::string_view text, MibConfig &out, const MibErrorSink &sink) {
    unsigned lineNo = 0;
    unsigned skipped = 0;
    while (!text.empty()) {
        size_t end = text.find('\n');
        std::string_view line = text.substr(0, end);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        ++lineNo;
        Reason reason = applyLine(line, lineNo, out);
        if (reason.empty()) continue;
        ++skipped;
        if (sink) sink(lineNo, reason);
    }
    return skipped;
}
