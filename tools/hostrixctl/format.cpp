#include "format.h"

#include <arpa/inet.h>

#include <ctime>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

#include "args.h"

namespace {

constexpr uint8_t kFirstPrintable = 0x20;
constexpr uint8_t kLastPrintable = 0x7e;
constexpr uint32_t kSecondsPerDay = 86400;
constexpr uint32_t kSecondsPerHour = 3600;
constexpr uint32_t kSecondsPerMinute = 60;
constexpr size_t kEventWidth = 7;  // "CHANGED"
constexpr std::string_view kNone = "-";
constexpr std::string_view kColumnGap = "  ";

bool printable(uint8_t byte) {
    return byte >= kFirstPrintable && byte <= kLastPrintable;
}

void appendEscaped(std::string &out, uint8_t byte) {
    if (byte == '\\') {
        out += "\\\\";
    } else if (printable(byte)) {
        out += static_cast<char>(byte);
    } else {
        char escaped[8];
        std::snprintf(escaped, sizeof escaped, "\\x%02x", byte);
        out += escaped;
    }
}

// A table cell or a word of an event line: "-" stands for an empty field.
std::string displayText(std::string_view text) {
    return text.empty() ? std::string(kNone) : escapeText(text);
}

template <size_t N>
std::string displayField(const char (&field)[N]) {
    return displayText(fieldText(field));
}

std::string displayIpv4(uint32_t networkOrder) {
    return networkOrder == 0 ? std::string(kNone) : ipv4Text(networkOrder);
}

bool isZero(const uint8_t *bytes, size_t size) {
    return std::all_of(bytes, bytes + size, [](uint8_t byte) { return byte == 0; });
}

std::string displayIpv6(const uint8_t (&address)[16]) {
    return isZero(address, sizeof address) ? std::string(kNone) : ipv6Text(address);
}

// Wired hosts sit on LAN port 1..4, wireless ones on SSID index 1..10.
std::string portText(const lanHostInfo_t &host) {
    if (host.port == 0) return std::string(kNone);
    const char *kind = host.connectionType == CONNECTION_WIRELESS ? "SSID" : "LAN";
    return kind + std::to_string(host.port);
}

// Rates come in units of 1024 bit/s.
std::string rateText(uint32_t units) {
    constexpr uint32_t kUnitsPerMebibit = 1024;
    char text[32];
    if (units < kUnitsPerMebibit)
        std::snprintf(text, sizeof text, "%u Kib/s", units);
    else
        std::snprintf(text, sizeof text, "%.1f Mib/s", units / double(kUnitsPerMebibit));
    return text;
}

constexpr size_t kColumns = 9;
using Row = std::array<std::string, kColumns>;
const Row kHeader = {"MAC", "IPV4", "NAME", "INTERFACE", "PORT", "ONLINE", "UP", "DOWN", "IPV6"};

// The gateway's name, and the kernel's beside it where the box names it otherwise.
std::string interfaceText(const lanHostInfo_t &host, const IfnameMap &names) {
    std::string gateway = fieldText(host.ifName);
    std::string_view kernel = names.kernelOf(gateway);
    return kernel == gateway ? displayText(gateway)
                             : displayText(gateway) + " (" + displayText(kernel) + ")";
}

Row hostRow(const lanHostInfo_t &host, const IfnameMap &names) {
    return {formatMac(host.mac),        displayIpv4(host.ip),    displayField(host.devName),
            interfaceText(host, names), portText(host),          durationText(host.onLineTime),
            rateText(host.upRate),      rateText(host.downRate), displayIpv6(host.ipv6)};
}

std::string joinRow(const Row &row, const std::array<size_t, kColumns> &widths) {
    std::string line;
    for (size_t i = 0; i < row.size(); ++i) {
        line += row[i];
        if (i + 1 < row.size())
            line += std::string(widths[i] - row[i].size(), ' ') + std::string(kColumnGap);
    }
    return line + "\n";
}

void addIdentity(const lanHostInfo_t &h, JsonObject &o) {
    o.text("mac", formatMac(h.mac)).text("agentMac", formatMac(h.agentMac));
    o.text("devName", fieldText(h.devName));
    o.number("devType", h.devType).text("ip", ipv4Text(h.ip)).text("ipv6", ipv6Text(h.ipv6));
    o.number("connectionType", h.connectionType).number("port", h.port);
    o.number("phy_port", h.phy_port);
    o.text("ifName", fieldText(h.ifName));
    o.text("brand", fieldText(h.brand));
    o.text("model", fieldText(h.model));
    o.text("os", fieldText(h.os));
}

void addTraffic(const lanHostInfo_t &h, JsonObject &o) {
    o.number("onLineTime", h.onLineTime).number("upRate", h.upRate).number("downRate", h.downRate);
    o.number("rxBytes", h.rxBytes).number("txBytes", h.txBytes);
    o.number("firstConnect", h.firstConnect).number("disConnect", h.disConnect);
    o.number("latestActiveTimeSynced", h.latestActiveTimeSynced);
    o.text("latestActiveTime", fieldText(h.latestActiveTime));
    o.text("disConnectTime", fieldText(h.disConnectTime));
    o.number("controlled", h.controlled).number("internetAccess", h.internetAccess);
    o.number("otherAccess", h.otherAccess).number("rx_packets", h.rx_packets);
    o.number("tx_packets", h.tx_packets).number("rx_errors", h.rx_errors);
    o.number("rx_dropped", h.rx_dropped).number("offline", h.offline);
}

void addDiscovery(const lanHostInfo_t &h, JsonObject &o) {
    o.number("dhcpLeaseFound", h.dhcpLeaseFound).text("arpReqIp", ipv4Text(h.arpReqIp));
    o.number("arpRetryCnt", h.arpRetryCnt).number("dhcpClientState", h.dhcpClientState);
    o.number("ipSource", h.ipSource).number("firstGotIP", h.firstGotIP);
    o.number("isWifi", h.isWifi).number("wifiAttr", h.wifiAttr);
    o.text("wirelessMode", fieldText(h.wirelessMode));
    o.text("negRxRate", fieldText(h.negRxRate));
    o.text("negTxRate", fieldText(h.negTxRate));
    o.text("ssidName", fieldText(h.ssidName));
    o.signedNumber("rssi", h.rssi);
}

}  // namespace

std::string fieldText(const char *field, size_t size) {
    return std::string(field, strnlen(field, size));
}

std::string escapeText(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) appendEscaped(out, static_cast<uint8_t>(c));
    return out;
}

std::string jsonQuote(std::string_view text) {
    std::string out = "\"";
    for (char c : text) {
        auto byte = static_cast<uint8_t>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (printable(byte)) {
            out += c;
        } else {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", byte);
            out += escaped;
        }
    }
    return out + "\"";
}

void JsonObject::key(std::string_view name) {
    if (!members_.empty()) members_ += ',';
    members_ += jsonQuote(name) + ":";
}

JsonObject &JsonObject::text(std::string_view name, std::string_view value) {
    key(name);
    members_ += jsonQuote(value);
    return *this;
}

JsonObject &JsonObject::number(std::string_view name, uint64_t value) {
    key(name);
    members_ += std::to_string(value);
    return *this;
}

JsonObject &JsonObject::signedNumber(std::string_view name, int64_t value) {
    key(name);
    members_ += std::to_string(value);
    return *this;
}

JsonObject &JsonObject::boolean(std::string_view name, bool value) {
    key(name);
    members_ += value ? "true" : "false";
    return *this;
}

JsonObject &JsonObject::raw(std::string_view name, std::string_view json) {
    key(name);
    members_ += json;
    return *this;
}

std::string ipv4Text(uint32_t networkOrder) {
    char text[INET_ADDRSTRLEN];
    in_addr address{networkOrder};
    inet_ntop(AF_INET, &address, text, sizeof text);
    return text;
}

std::string ipv6Text(const uint8_t *address) {
    char text[INET6_ADDRSTRLEN];
    in6_addr raw;
    std::memcpy(&raw, address, sizeof raw);
    inet_ntop(AF_INET6, &raw, text, sizeof text);
    return text;
}

std::string durationText(uint32_t seconds) {
    uint32_t days = seconds / kSecondsPerDay;
    uint32_t rest = seconds % kSecondsPerDay;
    char text[32];
    std::snprintf(text, sizeof text, "%02u:%02u:%02u", rest / kSecondsPerHour,
                  rest % kSecondsPerHour / kSecondsPerMinute, rest % kSecondsPerMinute);
    return days == 0 ? std::string(text) : std::to_string(days) + "d " + text;
}

std::string localTimeText(time_t when) {
    tm local{};
    localtime_r(&when, &local);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    return text;
}

void addHostFields(const lanHostInfo_t &host, JsonObject &object) {
    addIdentity(host, object);
    addTraffic(host, object);
    addDiscovery(host, object);
}

std::string hostJson(const lanHostInfo_t &host) {
    JsonObject object;
    addHostFields(host, object);
    return object.str();
}

std::string hostTable(const std::vector<lanHostInfo_t> &hosts, std::string_view emptyNote,
                      const IfnameMap &names) {
    if (hosts.empty()) return std::string(emptyNote) + "\n";
    std::vector<Row> rows{kHeader};
    for (const lanHostInfo_t &host : hosts) rows.push_back(hostRow(host, names));
    std::array<size_t, kColumns> widths{};
    for (const Row &row : rows)
        for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
    std::string table;
    for (const Row &row : rows) table += joinRow(row, widths);
    return table;
}

std::string eventLine(time_t when, std::string_view event, const lanHostInfo_t &host) {
    std::string label(event);
    label.resize(std::max(label.size(), kEventWidth), ' ');
    std::string line = localTimeText(when) + " " + label + " " + formatMac(host.mac) + " " +
                       displayIpv4(host.ip) + " " + displayField(host.devName) + " " +
                       displayField(host.ifName) + " " + portText(host);
    if (host.ssidName[0] != '\0') line += " ssid=" + displayField(host.ssidName);
    if (!isZero(host.ipv6, sizeof host.ipv6)) line += " " + ipv6Text(host.ipv6);
    return line;
}

std::string eventJson(time_t when, std::string_view event, const lanHostInfo_t &host) {
    JsonObject object;
    object.text("event", event).text("time", localTimeText(when));
    addHostFields(host, object);
    return object.str();
}

std::string utcText(int64_t seconds) {
    time_t when = static_cast<time_t>(seconds);
    tm utc{};
    gmtime_r(&when, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}
