#include "agent_stream.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>

#include "args.h"

namespace {

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// The JSON string starting after its opening quote at TEXT; only the escapes the
// agent writes (\" \\ \u00XX) are needed, the others are taken as they stand.
std::optional<std::string> readString(std::string_view text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (c == '"') return out;
        if (c != '\\') {
            out += c;
            continue;
        }
        if (++i >= text.size()) return std::nullopt;
        if (text[i] != 'u') {
            out += text[i] == 'n' ? '\n' : text[i];
            continue;
        }
        if (i + 4 >= text.size()) return std::nullopt;
        int value = 0;
        for (size_t k = 1; k <= 4; ++k) {
            int digit = hexValue(text[i + k]);
            if (digit < 0) return std::nullopt;
            value = value * 16 + digit;
        }
        out += static_cast<char>(value & 0xff);
        i += 4;
    }
    return std::nullopt;
}

template <size_t N>
void copyField(char (&field)[N], const std::optional<std::string> &value) {
    if (!value) return;
    std::memcpy(field, value->data(), std::min(value->size(), N - 1));
}

uint8_t smallNumber(const std::optional<std::string> &text) {
    std::optional<uint32_t> value = text ? parseNumber(*text, 255) : std::nullopt;
    return static_cast<uint8_t>(value.value_or(0));
}

}  // namespace

std::optional<std::string> jsonField(std::string_view line, std::string_view key) {
    std::string pattern = "\"" + std::string(key) + "\":";
    size_t at = line.find(pattern);
    if (at == std::string_view::npos) return std::nullopt;
    std::string_view rest = line.substr(at + pattern.size());
    if (!rest.empty() && rest[0] == '"') return readString(rest.substr(1));
    size_t end = rest.find_first_of(",}]");
    return std::string(rest.substr(0, end));
}

std::optional<AgentEvent> parseAgentLine(std::string_view line) {
    AgentEvent out;
    std::optional<std::string> type = jsonField(line, "type");
    if (!type) return std::nullopt;
    out.type = *type;
    if (out.type != "event") return out;
    std::optional<std::string> event = jsonField(line, "event");
    std::optional<std::string> mac = jsonField(line, "mac");
    std::optional<MacAddress> parsed = mac ? parseMac(*mac) : std::nullopt;
    if (!event || !parsed) return std::nullopt;
    out.event = *event;
    lanHostInfo_t &host = out.host;
    std::memcpy(host.mac, parsed->data(), kMacLen);
    if (auto ip = jsonField(line, "ip")) inet_pton(AF_INET, ip->c_str(), &host.ip);
    if (auto ipv6 = jsonField(line, "ipv6")) inet_pton(AF_INET6, ipv6->c_str(), host.ipv6);
    copyField(host.devName, jsonField(line, "devName"));
    copyField(host.ifName, jsonField(line, "ifName"));
    copyField(host.ssidName, jsonField(line, "ssidName"));
    host.port = smallNumber(jsonField(line, "port"));
    host.connectionType = smallNumber(jsonField(line, "connectionType"));
    return out;
}
