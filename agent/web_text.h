// What the agent's web server says, as pure functions: the listen address, the
// event stream's framing and Last-Event-ID, the Prometheus text and the process
// figures it reports. No sockets here, so the unit tests take them as they are.
#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

inline constexpr std::string_view kDefaultHttpListen = "127.0.0.1:8089";
inline constexpr size_t kMaxMetricHosts = 256;
inline constexpr size_t kMaxLabelBytes = 64;

struct ListenAddress {
    sockaddr_storage addr{};
    socklen_t size = 0;
};

// "IPV4:PORT" or "[IPV6]:PORT" (numeric only, port 1..65535); nullopt otherwise.
std::optional<ListenAddress> parseListenAddress(std::string_view text);

// A Last-Event-ID header: decimal digits that fit 64 bits, else nullopt (and the
// client gets a snapshot).
std::optional<uint64_t> parseLastEventId(std::string_view text);

// One server-sent event: "id: ID\ndata: DATA\n\n". DATA is one JSON line.
std::string sseMessage(uint64_t id, std::string_view data);

// A label value as the text format wants it: backslash, quote and newline
// escaped; other bytes outside printable ASCII as '?', so any LAN name is valid
// UTF-8; cut at kMaxLabelBytes.
std::string metricLabel(std::string_view value);

struct HostTraffic {
    std::string mac, name;
    uint64_t receivedBytes = 0, sentBytes = 0;  // by the host
};

struct ProcessFigures {
    double cpuSeconds = 0;
    uint64_t residentBytes = 0;
    uint64_t openFds = 0;
    double startTimeSeconds = 0;  // Unix time
};

struct EventCount {
    std::string_view event;
    uint64_t count = 0;
};

// The whole /metrics page; at most kMaxMetricHosts hosts get traffic series.
std::string metricsText(size_t hostsOnline, const std::vector<HostTraffic> &hosts,
                        const std::vector<EventCount> &events, const ProcessFigures &process);

// From /proc/self/stat's text: CPU seconds, resident bytes and the start time
// (TICKS clock ticks a second, PAGE bytes a page, BOOT_TIME the Unix time the
// system started); open descriptors are left to the caller. nullopt: malformed.
std::optional<ProcessFigures> parseProcStat(std::string_view stat, long ticks, long page,
                                            double bootTime);
