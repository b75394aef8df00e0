#include "agent.h"

#include <limits.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "agent_paths.h"
#include "args.h"
#include "linking.h"
#include "core/paths.h"
#include "format.h"
#include "log.h"

namespace {

constexpr uint64_t kSeqPerSecond = 1000000;  // sequence numbers grow across restarts
constexpr int64_t kStartupHistoryWindow = kLinkWindowSeconds;

int64_t monotonicSeconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec;
}

int64_t wallSeconds() { return static_cast<int64_t>(time(nullptr)); }

// hostrix-oui.bin beside the agent's binary (a build folder), else where an install
// puts it relative to the binary (PREFIX/sbin -> PREFIX/share/hostrix).
std::string defaultOuiFile() {
    constexpr const char *kName = "hostrix-oui.bin";
    char self[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0) return kName;
    std::string path(self, static_cast<size_t>(n));
    std::string folder = path.substr(0, path.rfind('/') + 1);
    std::string beside = folder + kName;
    if (access(beside.c_str(), F_OK) == 0) return beside;
    return folder + "../share/hostrix/" + kName;
}

UniqueFd blockStopSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    signal(SIGPIPE, SIG_IGN);
    return UniqueFd(signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC));
}

}  // namespace

Agent::Agent(AgentConfig config)
    : config_(std::move(config)), ring_(static_cast<uint64_t>(wallSeconds()) * kSeqPerSecond) {}

int Agent::run() {
    if (!setUp()) return 1;
    loop();
    mqtt_.reset();  // says "offline" to Home Assistant
    flushHistory();
    unlink(agentPath(kAgentSocketBase).c_str());
    unlink(agentPath(kAgentDhcpSocketBase).c_str());
    agentLog("stopped");
    return 0;
}

bool Agent::setUp() {
    now_ = wallSeconds(), nowMono_ = monotonicSeconds();
    signals_ = blockStopSignals();
    std::string why, path = agentPath(kAgentSocketBase);
    UniqueFd listener = listenUnix(path, config_.socketGroup, why);
    if (!listener.valid()) {
        agentLog("cannot serve subscribers: " + why);
        return false;
    }
    hub_ = std::make_unique<SubscriberHub>(
        std::move(listener), [this](const SubscriberRequest &request) { return greet(request); });
    std::string ouiPath = config_.ouiFile.empty() ? defaultOuiFile() : config_.ouiFile;
    if (oui_.load(ouiPath))
        agentLog("vendors: " + std::to_string(oui_.entries()) + " prefixes from " + ouiPath);
    else
        agentLog("no vendor file at " + ouiPath + " (or malformed); devices get no vendor");
    ifnames_ = readIfnameMap(hostrixPath(HostrixFile::Config));
    loadHistory();
    openSideChannels();
    startWeb();
    startMqtt();
    agentLog("serving subscribers at " + path);
    return true;
}

void Agent::loadHistory() {
    std::string path = historyDbPath(config_);
    if (!history_.open(path)) return;
    for (const DeviceRow &row : history_.devicesSeenSince(now_ - kStartupHistoryWindow))
        if (std::optional<MacAddress> mac = parseMac(row.mac)) deviceFor(*mac);
    for (const FingerprintRow &row : history_.fingerprintsSince(now_ - kStartupHistoryWindow)) {
        std::optional<MacAddress> mac = parseMac(row.mac);
        if (!mac) continue;
        Device &device = deviceFor(*mac);
        device.dhcp = row.dhcp;
        device.dhcp->mac = *mac;
        device.dhcpSeen = row.seen;
        device.os = classifyOs(*device.dhcp).family;
    }
    for (const SessionChange &open : history_.openSessions()) staleSessions_[open.mac] = open.from;
    dirty_.clear();
    agentLog("history at " + path + ": " + std::to_string(devices_.size()) +
             " devices seen in the last 7 days");
}

void Agent::openSideChannels() {
    std::string why;
    dhcp_ = bindUnixDatagram(agentPath(kAgentDhcpSocketBase), config_.socketGroup, why);
    if (!dhcp_.valid()) agentLog("no DHCP fingerprints: " + why);
    if (!config_.mdns) return;
    std::string ifname = config_.mdnsInterface.empty() ? std::string(ifnames_.kernelOf("br0"))
                                                       : config_.mdnsInterface;
    why.clear();
    mdns_ = openMdnsSockets(ifname, why);
    if (!why.empty()) agentLog("mDNS: " + why);
}

void Agent::loop() {
    while (!stop_) {
        now_ = wallSeconds(), nowMono_ = monotonicSeconds();
        if (nowMono_ >= nextTick_) {
            nextTick_ = nowMono_ + 1;
            tick();
        }
        std::vector<pollfd> fds = {{signals_.get(), POLLIN, 0},
                                   {dhcp_.get(), POLLIN, 0},
                                   {mdns_.v4.get(), POLLIN, 0},
                                   {mdns_.v6.get(), POLLIN, 0},
                                   mqtt_ ? mqtt_->pollEntry() : pollfd{-1, 0, 0}};
        size_t hubAt = fds.size();
        hub_->addPollFds(fds);
        if (web_) web_->addPollFds(fds);
        // Wakes at the next whole second of the tick, so polling stays once a second.
        timespec mono{};
        clock_gettime(CLOCK_MONOTONIC, &mono);
        int waitMs = static_cast<int>(1000 - mono.tv_nsec / 1000000);
        int webMs = web_ ? web_->timeoutMs() : -1;
        if (webMs >= 0) waitMs = std::min(waitMs, webMs);
        if (poll(fds.data(), fds.size(), waitMs) < 0) continue;
        now_ = wallSeconds(), nowMono_ = monotonicSeconds();
        servePoll(fds, hubAt);
    }
}

void Agent::servePoll(const std::vector<pollfd> &fds, size_t hubAt) {
    if (fds[0].revents & POLLIN) stop_ = true;
    if (fds[1].revents & POLLIN) {
        char datagram[kMaxDhcpReport + 1];
        ssize_t n = recv(dhcp_.get(), datagram, sizeof datagram, MSG_TRUNC);
        std::optional<DhcpReport> report;
        if (n > 0 && static_cast<size_t>(n) <= kMaxDhcpReport)
            report = parseDhcpReport(std::string_view(datagram, static_cast<size_t>(n)));
        if (report) dhcpReported(*report);
        else agentLogOnce("bad-dhcp", "a malformed DHCP report was dropped (reported once)");
    }
    for (size_t i : {size_t{2}, size_t{3}}) {
        std::vector<MdnsAddress> records;
        if ((fds[i].revents & POLLIN) && receiveMdns(fds[i].fd, records)) mdnsHeard(records);
    }
    if (mqtt_) mqtt_->serve(fds[hubAt - 1].revents, nowMono_);  // the entry before the hub's
    hub_->serve(fds, hubAt, nowMono_);
    if (web_) web_->run();  // libmicrohttpd looks at its own descriptors
}

void Agent::tick() {
    if (web_) web_->tick(nowMono_);
    for (auto &[mac, device] : devices_)
        if (device.online) device.lastSeen = now_;
    if (pollDaemon()) {
        if (std::optional<HostFileRead> file = readHostFileIfNewer(fileWritten_)) {
            fileWritten_ = file->written;
            reconcile(*file);
        }
        closeStaleSessions();
    }
    if (nowMono_ >= nextFlush_) {
        nextFlush_ = nowMono_ + kHistoryFlushSeconds;
        flushHistory();
    }
    if (nowMono_ >= nextHousekeeping_) {
        nextHousekeeping_ = nowMono_ + kHousekeepingSeconds;
        housekeeping();
    }
    if (mqtt_) mqtt_->tick(nowMono_);
}

bool Agent::pollDaemon() {
    std::optional<SocketIdentity> identity = controlSocketIdentity();
    if (!identity) {
        daemonAway("no control socket");
        return false;
    }
    bool restarted = identity_ && *identity != *identity_;
    if (restarted) {
        agentLog("hostrix started again; reconciling with its host file");
        fileWritten_ = 0;
        for (auto &[mac, device] : devices_) device.brandTried = device.osTried = false;
    }
    if (!identity_ || restarted) askForFreshHostFile();
    identity_ = identity;
    daemonStarted_ = identity->changed / 1000000000;
    std::vector<lanHostInfo_t> arrivals, departures, changes;
    if (!drainReports(CMD_GET_NEW_DEVICE, arrivals) ||
        !drainReports(CMD_GET_LEAVE_DEVICE, departures) ||
        !drainReports(CMD_GET_INFORM_CHANGE, changes)) {
        daemonAway("it does not answer");
        return false;
    }
    if (agentLogClear("daemon")) agentLog("hostrix answers again");
    for (const lanHostInfo_t &record : arrivals) arrived(record, now_);
    for (const lanHostInfo_t &record : departures) departed(record);
    for (const lanHostInfo_t &record : changes) changed(record);
    return true;
}

void Agent::daemonAway(const std::string &why) {
    agentLogOnce("daemon", std::string("hostrix is not reachable at ") +
                               hostrixPath(HostrixFile::ControlSocket) + " (" + why +
                               "); retrying every second");
}

// The host file is the whole picture at the moment it was written: a host in it is
// online; a host the agent holds online that the daemon last vouched for before the
// file was written, and that the file lacks, is gone (its report went elsewhere, or
// the daemon started again without it). A file from a daemon still settling after
// its start tells only arrivals.
void Agent::reconcile(const HostFileRead &file) {
    std::set<Mac> listed;
    for (const lanHostInfo_t &record : file.hosts) {
        Mac mac;
        std::memcpy(mac.data(), record.mac, mac.size());
        listed.insert(mac);
        // A report newer than the file knows better than the file.
        auto known = devices_.find(mac);
        if (known != devices_.end() && (known->second.online ? known->second.confirmedAt
                                                             : known->second.leftAt) >= file.written)
            continue;
        arrived(record, file.written);
    }
    if (file.written - daemonStarted_ < kDaemonSettleSeconds) return;
    std::vector<lanHostInfo_t> gone;
    for (auto &[mac, device] : devices_)
        if (device.online && !listed.contains(mac) && device.confirmedAt < file.written)
            gone.push_back(device.record);
    for (const lanHostInfo_t &record : gone) departed(record);
}

// Sessions an earlier run left open and that no arrival took over end at the
// device's last sighting.
void Agent::closeStaleSessions() {
    if (staleSessionsClosed_) return;
    staleSessionsClosed_ = true;
    for (const auto &[mac, from] : staleSessions_) {
        std::optional<DeviceRow> row = history_.device(mac);
        sessionChanges_.push_back({mac, from, row ? std::max(row->lastSeen, from) : from});
    }
    staleSessions_.clear();
}

std::string Agent::greet(const SubscriberRequest &request) {
    if (request.since) {
        if (auto missed = ring_.after(*request.since)) {
            std::string lines;
            for (const std::string *line : *missed) lines += *line + "\n";
            // A replay too large to queue would only get the subscriber cut off.
            if (lines.size() <= kMaxQueuedBytes / 2) return lines;
        }
    }
    return snapshot();
}

std::string Agent::snapshot() {
    std::string hosts = "[";
    for (const auto &[mac, device] : devices_) {
        if (!device.online || !device.haveRecord) continue;
        if (hosts.size() > 1) hosts += ',';
        hosts += hostJson(device, ifnames_.kernelOf(fieldText(device.record.ifName)),
                          linkedMacs(device), now_);
    }
    return "{\"type\":\"snapshot\",\"seq\":" + std::to_string(ring_.lastSeq()) +
           ",\"hosts\":" + hosts + "]}\n";
}

void Agent::flushHistory() {
    if (dirty_.empty() && dirtyPrints_.empty() && sessionChanges_.empty()) return;
    std::vector<DeviceRow> rows;
    std::vector<FingerprintRow> prints;
    for (const Mac &mac : dirty_) rows.push_back(rowOf(devices_.at(mac)));
    for (const Mac &mac : dirtyPrints_) {
        const Device &device = devices_.at(mac);
        if (device.dhcp) prints.push_back({device.macText, *device.dhcp, device.dhcpSeen});
    }
    // In memory only, the history still lives in the devices; nothing is retried.
    history_.write(rows, prints, sessionChanges_);
    dirty_.clear(), dirtyPrints_.clear(), sessionChanges_.clear();
}

void Agent::housekeeping() {
    expireNames();
    if (nowMono_ >= nextLastSeenRefresh_) {
        nextLastSeenRefresh_ = nowMono_ + kRefreshLastSeenSeconds;
        for (auto &[mac, device] : devices_)
            if (device.online) markDirty(device);
    }
    pruneDevices();
}
