// What the agent's web server shows: the snapshot and the event stream (the
// subscribers' lines, framed as server-sent events), a device's detail with its
// sessions, and /metrics.
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "agent.h"
#include "format.h"
#include "web_text.h"

namespace {

constexpr size_t kMaxDetailSessions = 50;
constexpr size_t kMaxProcRead = 4096;
constexpr uint64_t kMaxCountedFds = 65536;
constexpr std::string_view kEventKinds[] = {"new", "left", "changed"};

// The first MAX bytes of a /proc file; empty when it cannot be read.
std::string readProc(const char *path, size_t max = kMaxProcRead) {
    UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC));
    std::string text(max, '\0');
    ssize_t n = fd.valid() ? read(fd.get(), text.data(), max) : -1;
    text.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return text;
}

uint64_t openFds() {
    DIR *dir = opendir("/proc/self/fd");
    if (!dir) return 0;
    uint64_t count = 0;
    while (const dirent *entry = readdir(dir)) {
        if (entry->d_name[0] != '.') ++count;
        if (count >= kMaxCountedFds) break;
    }
    closedir(dir);
    return count > 0 ? count - 1 : 0;  // not the directory's own descriptor
}

ProcessFigures processFigures(int64_t now) {
    double uptime = std::strtod(readProc("/proc/uptime").c_str(), nullptr);
    std::optional<ProcessFigures> figures = parseProcStat(
        readProc("/proc/self/stat"), sysconf(_SC_CLK_TCK), sysconf(_SC_PAGESIZE),
        static_cast<double>(now) - uptime);
    ProcessFigures out = figures.value_or(ProcessFigures{});
    out.openFds = openFds();
    return out;
}

std::string sessionsJson(const std::vector<SessionChange> &sessions) {
    std::string json = "[";
    for (const SessionChange &session : sessions) {
        if (json.size() > 1) json += ',';
        JsonObject one;
        one.text("from", utcText(session.from));
        one.raw("until", session.until ? jsonQuote(utcText(*session.until)) : "null");
        json += one.str();
    }
    return json + "]";
}

}  // namespace

void Agent::startWeb() {
    if (config_.httpListen == "off") return;
    web_ = WebServer::start(config_.httpListen, {
        [this] { return snapshot(); },
        [this](const std::string &mac) { return deviceDetail(mac); },
        [this] { return metricsPage(); },
        [this](std::optional<uint64_t> lastEventId) { return streamGreeting(lastEventId); },
    });
}

// As a subscriber's greeting: the events after LAST_EVENT_ID when the ring still
// holds them, else the snapshot under the newest event's number, so that the
// browser's reconnection asks for what follows it.
std::string Agent::streamGreeting(std::optional<uint64_t> lastEventId) {
    if (lastEventId) {
        if (auto missed = ring_.after(*lastEventId)) {
            std::string events;
            uint64_t seq = *lastEventId;
            for (const std::string *line : *missed) events += sseMessage(++seq, *line);
            if (events.size() <= kMaxStreamQueue / 2) return events;
        }
    }
    std::string picture = snapshot();
    picture.pop_back();  // its newline
    return sseMessage(ring_.lastSeq(), picture);
}

// The sessions written so far, with what is still waiting for the next write.
std::vector<SessionChange> Agent::sessionsOf(const std::string &mac) {
    std::vector<SessionChange> sessions = history_.sessionsOf(mac, kMaxDetailSessions);
    for (const SessionChange &change : sessionChanges_) {
        if (change.mac != mac) continue;
        auto same = std::find_if(sessions.begin(), sessions.end(),
                                 [&](const SessionChange &s) { return s.from == change.from; });
        if (same == sessions.end()) sessions.push_back(change);
        else if (change.until) same->until = change.until;
    }
    std::sort(sessions.begin(), sessions.end(), [](auto &a, auto &b) { return a.from > b.from; });
    if (sessions.size() > kMaxDetailSessions) sessions.resize(kMaxDetailSessions);
    return sessions;
}

std::optional<std::string> Agent::deviceDetail(const std::string &mac) {
    auto known = std::find_if(devices_.begin(), devices_.end(),
                              [&](const auto &entry) { return entry.second.macText == mac; });
    JsonObject object;
    object.text("mac", mac);
    if (known != devices_.end()) {
        const Device &device = known->second;
        object.boolean("online", device.online).text("vendor", device.vendor);
        object.text("osFamily", osFamilyName(device.os));
        object.text("firstSeen", utcText(device.firstSeen)).text("lastSeen", utcText(device.lastSeen));
        std::vector<DeviceName> names = deviceNames(device, now_);
        if (names.empty() && !device.storedName.empty())
            names.push_back({device.storedName, device.storedNameSource});
        object.raw("names", namesJson(names)).raw("linkedMacs", textArray(linkedMacs(device)));
    } else {
        std::optional<DeviceRow> row = history_.device(mac);
        if (!row) return std::nullopt;
        object.boolean("online", false).text("vendor", row->vendor).text("osFamily", row->osFamily);
        object.text("firstSeen", utcText(row->firstSeen)).text("lastSeen", utcText(row->lastSeen));
        std::vector<DeviceName> names;
        if (!row->name.empty()) names.push_back({row->name, row->nameSource});
        std::vector<std::string> linked;
        if (!row->linkedTo.empty()) linked.push_back(row->linkedTo);
        object.raw("names", namesJson(names)).raw("linkedMacs", textArray(linked));
    }
    return object.raw("sessions", sessionsJson(sessionsOf(mac))).str();
}

std::string Agent::metricsPage() {
    std::vector<HostTraffic> hosts;
    size_t online = 0;
    for (const auto &[mac, device] : devices_) {
        if (!device.online || !device.haveRecord) continue;
        ++online;
        if (hosts.size() >= kMaxMetricHosts) continue;
        std::vector<DeviceName> names = deviceNames(device, now_);
        hosts.push_back({device.macText, names.empty() ? "" : names.front().name,
                         device.record.rxBytes, device.record.txBytes});
    }
    std::vector<EventCount> events;
    for (std::string_view kind : kEventKinds) {
        auto at = eventCounts_.find(kind);
        events.push_back({kind, at == eventCounts_.end() ? 0 : at->second});
    }
    return metricsText(online, hosts, events, processFigures(now_));
}
