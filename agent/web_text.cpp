#include "web_text.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <charconv>
#include <cstring>

namespace {

constexpr uint16_t kNoPort = 0;
constexpr size_t kMaxDecimalDigits = 20;  // 2^64 - 1

std::optional<uint16_t> parsePort(std::string_view text) {
    unsigned value = 0;
    if (text.empty() || text.size() > 5) return std::nullopt;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || end != text.data() + text.size() || value == kNoPort || value > 65535)
        return std::nullopt;
    return static_cast<uint16_t>(value);
}

template <typename T>
std::optional<T> parseDecimal(std::string_view text) {
    T value{};
    if (text.empty()) return std::nullopt;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || end != text.data() + text.size()) return std::nullopt;
    return value;
}

std::vector<std::string_view> words(std::string_view text) {
    std::vector<std::string_view> out;
    while (!text.empty()) {
        size_t start = text.find_first_not_of(" \n");
        if (start == std::string_view::npos) break;
        text.remove_prefix(start);
        size_t end = text.find_first_of(" \n");
        out.push_back(text.substr(0, end));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end);
    }
    return out;
}

void addHelp(std::string &out, std::string_view name, std::string_view type, std::string_view help) {
    out.append("# HELP ").append(name).append(" ").append(help).append("\n");
    out.append("# TYPE ").append(name).append(" ").append(type).append("\n");
}

void addSample(std::string &out, std::string_view name, std::string_view labels, std::string value) {
    out.append(name);
    if (!labels.empty()) out.append("{").append(labels).append("}");
    out.append(" ").append(value).append("\n");
}

std::string hostLabels(const HostTraffic &host) {
    return "mac=\"" + metricLabel(host.mac) + "\",name=\"" + metricLabel(host.name) + "\"";
}

std::string decimal(double value) {
    char text[64];
    std::snprintf(text, sizeof text, "%.3f", value);
    return text;
}

}  // namespace

std::optional<ListenAddress> parseListenAddress(std::string_view text) {
    size_t colon = text.rfind(':');
    if (colon == std::string_view::npos) return std::nullopt;
    std::optional<uint16_t> port = parsePort(text.substr(colon + 1));
    std::string host(text.substr(0, colon));
    if (!port) return std::nullopt;
    ListenAddress out;
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
        auto *v6 = reinterpret_cast<sockaddr_in6 *>(&out.addr);
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(*port);
        if (inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(), &v6->sin6_addr) != 1)
            return std::nullopt;
        out.size = sizeof *v6;
        return out;
    }
    auto *v4 = reinterpret_cast<sockaddr_in *>(&out.addr);
    v4->sin_family = AF_INET;
    v4->sin_port = htons(*port);
    if (inet_pton(AF_INET, host.c_str(), &v4->sin_addr) != 1) return std::nullopt;
    out.size = sizeof *v4;
    return out;
}

std::optional<uint64_t> parseLastEventId(std::string_view text) {
    if (text.size() > kMaxDecimalDigits || text.find_first_not_of("0123456789") != std::string_view::npos)
        return std::nullopt;
    return parseDecimal<uint64_t>(text);
}

std::string sseMessage(uint64_t id, std::string_view data) {
    std::string message = "id: " + std::to_string(id) + "\ndata: ";
    // A JSON line holds no newline; one that did would split the event.
    for (char c : data) message += c == '\n' || c == '\r' ? ' ' : c;
    return message + "\n\n";
}

std::string metricLabel(std::string_view value) {
    std::string out;
    for (char c : value.substr(0, kMaxLabelBytes)) {
        if (c == '\\') out += "\\\\";
        else if (c == '"') out += "\\\"";
        else if (c == '\n') out += "\\n";
        else out += c >= 0x20 && c <= 0x7e ? c : '?';
    }
    return out;
}

std::string metricsText(size_t hostsOnline, const std::vector<HostTraffic> &hosts,
                        const std::vector<EventCount> &events, const ProcessFigures &process) {
    std::string out;
    addHelp(out, "hostrix_hosts_online", "gauge", "Hosts online on the LAN.");
    addSample(out, "hostrix_hosts_online", "", std::to_string(hostsOnline));
    size_t series = std::min(hosts.size(), kMaxMetricHosts);
    addHelp(out, "hostrix_host_receive_bytes_total", "counter", "Bytes an online host received.");
    for (size_t i = 0; i < series; ++i)
        addSample(out, "hostrix_host_receive_bytes_total", hostLabels(hosts[i]),
                  std::to_string(hosts[i].receivedBytes));
    addHelp(out, "hostrix_host_transmit_bytes_total", "counter", "Bytes an online host sent.");
    for (size_t i = 0; i < series; ++i)
        addSample(out, "hostrix_host_transmit_bytes_total", hostLabels(hosts[i]),
                  std::to_string(hosts[i].sentBytes));
    addHelp(out, "hostrix_events_total", "counter", "Events the agent reported, by kind.");
    for (const EventCount &event : events)
        addSample(out, "hostrix_events_total", "event=\"" + metricLabel(event.event) + "\"",
                  std::to_string(event.count));
    addHelp(out, "process_cpu_seconds_total", "counter", "User and system CPU time spent in seconds.");
    addSample(out, "process_cpu_seconds_total", "", decimal(process.cpuSeconds));
    addHelp(out, "process_resident_memory_bytes", "gauge", "Resident memory size in bytes.");
    addSample(out, "process_resident_memory_bytes", "", std::to_string(process.residentBytes));
    addHelp(out, "process_open_fds", "gauge", "Number of open file descriptors.");
    addSample(out, "process_open_fds", "", std::to_string(process.openFds));
    addHelp(out, "process_start_time_seconds", "gauge", "Start time of the process since the Unix epoch in seconds.");
    addSample(out, "process_start_time_seconds", "", decimal(process.startTimeSeconds));
    return out;
}

std::optional<ProcessFigures> parseProcStat(std::string_view stat, long ticks, long page,
                                            double bootTime) {
    // The command name in parentheses may hold blanks and parentheses itself.
    size_t close = stat.rfind(')');
    if (close == std::string_view::npos || ticks <= 0 || page <= 0) return std::nullopt;
    std::vector<std::string_view> fields = words(stat.substr(close + 1));
    constexpr size_t kUtime = 11, kStime = 12, kStartTime = 19, kRss = 21;  // after the name
    if (fields.size() <= kRss) return std::nullopt;
    auto utime = parseDecimal<uint64_t>(fields[kUtime]), stime = parseDecimal<uint64_t>(fields[kStime]);
    auto start = parseDecimal<uint64_t>(fields[kStartTime]);
    auto rss = parseDecimal<int64_t>(fields[kRss]);
    if (!utime || !stime || !start || !rss) return std::nullopt;
    ProcessFigures figures;
    figures.cpuSeconds = static_cast<double>(*utime + *stime) / static_cast<double>(ticks);
    figures.residentBytes = static_cast<uint64_t>(std::max<int64_t>(*rss, 0)) * static_cast<uint64_t>(page);
    figures.startTimeSeconds = bootTime + static_cast<double>(*start) / static_cast<double>(ticks);
    return figures;
}
