// new, left, changed, list and watch: the commands that show hosts.
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <utility>
#include <vector>

#include "agent_paths.h"
#include "agent_stream.h"
#include "client.h"
#include "core/unique_fd.h"
#include "commands.h"
#include "core/paths.h"
#include "format.h"
#include "protocol.h"

namespace {

struct InformKind {
    uint32_t cmd;
    std::string_view label;  // in watch's lines
    std::string_view event;  // in watch's JSON
    std::string_view emptyNote;
};

constexpr InformKind kNewHosts{CMD_GET_NEW_DEVICE, "NEW", "new", "no new hosts"};
constexpr InformKind kLeftHosts{CMD_GET_LEAVE_DEVICE, "LEFT", "left", "no departed hosts"};
constexpr InformKind kChangedHosts{CMD_GET_INFORM_CHANGE, "CHANGED", "changed", "no changed hosts"};
constexpr InformKind kWatchOrder[] = {kNewHosts, kLeftHosts, kChangedHosts};

constexpr long kNanosPerMilli = 1000000;
constexpr uint32_t kMillisPerSecond = 1000;

volatile sig_atomic_t stopRequested = 0;

void requestStop(int) {
    stopRequested = 1;
}

void printHosts(const std::vector<lanHostInfo_t> &hosts, bool json, std::string_view emptyNote) {
    if (!json) {
        IfnameMap names = readIfnameMap(hostrixPath(HostrixFile::Config));
        return emitText(hostTable(hosts, emptyNote, names));
    }
    for (const lanHostInfo_t &host : hosts) emitLine(hostJson(host));
}

Outcome runInform(const CommandLine &line, const InformKind &kind) {
    Outcome args = expectArgs(line, 0, line.command);
    if (!args.ok()) return args;
    std::vector<lanHostInfo_t> hosts;
    Outcome asked = drainInform(kind.cmd, hosts);
    if (!asked.ok()) return asked;
    printHosts(hosts, line.json, kind.emptyNote);
    return Outcome::success();
}

// Without SA_RESTART, so that a signal also cuts the sleep between polls short.
// An ignored SIGINT stays ignored: a shell starts background jobs that way.
void catchStopSignals() {
    struct sigaction action {};
    action.sa_handler = requestStop;
    sigaction(SIGTERM, &action, nullptr);
    struct sigaction current {};
    sigaction(SIGINT, nullptr, &current);
    if (current.sa_handler != SIG_IGN) sigaction(SIGINT, &action, nullptr);
}

void sleepMillis(uint32_t millis) {
    timespec pause{static_cast<time_t>(millis / kMillisPerSecond),
                   static_cast<long>(millis % kMillisPerSecond) * kNanosPerMilli};
    nanosleep(&pause, nullptr);  // an early return on a signal is what we want
}

struct WatchState {
    const CommandLine &line;
    uint32_t shown = 0;
    bool outputGone = false;
};

bool countReached(const WatchState &state) {
    return state.line.count != 0 && state.shown >= state.line.count;
}

void showEvents(WatchState &state, const InformKind &kind,
                const std::vector<lanHostInfo_t> &hosts) {
    time_t now = std::time(nullptr);
    for (const lanHostInfo_t &host : hosts) {
        if (countReached(state) || state.outputGone) return;
        emitLine(state.line.json ? eventJson(now, kind.event, host)
                                 : eventLine(now, kind.label, host));
        ++state.shown;
        // Flushed each line: watch usually feeds a terminal or another program live.
        if (!flushOutput()) state.outputGone = true;
    }
}

Outcome pollOnce(WatchState &state) {
    for (const InformKind &kind : kWatchOrder) {
        std::vector<lanHostInfo_t> hosts;
        Outcome asked = drainInform(kind.cmd, hosts);
        if (!asked.ok()) return asked;
        showEvents(state, kind, hosts);
        if (stopRequested || countReached(state) || state.outputGone) break;
    }
    return Outcome::success();
}

// The agent's socket, connected and asked for events from now on; invalid when no
// agent listens there.
UniqueFd connectAgent(const std::string &path) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    struct stat info {};
    if (path.size() >= sizeof addr.sun_path || stat(path.c_str(), &info) < 0 ||
        !S_ISSOCK(info.st_mode))
        return {};
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    constexpr std::string_view kRequest = "{}\n";
    if (!fd.valid() || connect(fd.get(), reinterpret_cast<sockaddr *>(&addr), sizeof addr) < 0 ||
        send(fd.get(), kRequest.data(), kRequest.size(), MSG_NOSIGNAL) !=
            static_cast<ssize_t>(kRequest.size()))
        return {};
    return fd;
}

const InformKind *kindOf(std::string_view event) {
    for (const InformKind &kind : kWatchOrder)
        if (kind.event == event) return &kind;
    return nullptr;
}

// One line from the agent: JSON events as the agent wrote them, or the usual line.
void showAgentLine(WatchState &state, std::string_view text) {
    std::optional<AgentEvent> event = parseAgentLine(text);
    const InformKind *kind = event ? kindOf(event->event) : nullptr;
    if (!kind || countReached(state) || state.outputGone) return;
    emitLine(state.line.json ? std::string(text)
                             : eventLine(std::time(nullptr), kind->label, event->host));
    ++state.shown;
    if (!flushOutput()) state.outputGone = true;
}

Outcome watchAgent(WatchState &state, int fd) {
    std::string pending;
    char chunk[16 * 1024];
    while (!stopRequested && !countReached(state) && !state.outputGone) {
        pollfd ready{fd, POLLIN, 0};
        if (poll(&ready, 1, -1) < 0) continue;  // a signal: the loop test decides
        ssize_t n = recv(fd, chunk, sizeof chunk, 0);
        if (n <= 0)
            return Outcome::unreachable("hostrix-agent closed the connection; is it still running?");
        pending.append(chunk, static_cast<size_t>(n));
        for (size_t end; (end = pending.find('\n')) != std::string::npos; pending.erase(0, end + 1))
            showAgentLine(state, std::string_view(pending).substr(0, end));
    }
    return Outcome::success();
}

}  // namespace

Outcome runNew(const CommandLine &line) {
    return runInform(line, kNewHosts);
}
Outcome runLeft(const CommandLine &line) {
    return runInform(line, kLeftHosts);
}
Outcome runChanged(const CommandLine &line) {
    return runInform(line, kChangedHosts);
}

Outcome runList(const CommandLine &line) {
    Outcome args = expectArgs(line, 0, "list");
    if (!args.ok()) return args;
    std::string bytes;
    Outcome read = readHostFile(bytes);
    if (!read.ok()) return read;
    std::vector<lanHostInfo_t> hosts = fileRecords(bytes);
    // The file lists hosts by arrival, the longest online first.
    if (line.newest) std::reverse(hosts.begin(), hosts.end());
    printHosts(hosts, line.json, "no hosts online");
    return Outcome::success();
}

Outcome runWatch(const CommandLine &line) {
    Outcome args = expectArgs(line, 0, "watch");
    if (!args.ok()) return args;
    catchStopSignals();
    WatchState state{line};
    std::string agentSocket = agentPath(kAgentSocketBase);
    if (UniqueFd agent = connectAgent(agentSocket); agent.valid()) {
        std::fprintf(stderr, "hostrixctl: watching through hostrix-agent at %s\n",
                     escapeText(agentSocket).c_str());
        return watchAgent(state, agent.get());
    }
    bool announced = false;  // once the daemon answers: unreachable stays one line
    while (!stopRequested) {
        Outcome polled = pollOnce(state);
        if (!polled.ok()) return polled;
        if (!std::exchange(announced, true))
            std::fprintf(stderr,
                         "hostrixctl: no hostrix-agent at %s; polling hostrix directly, which "
                         "consumes its one-shot reports (an agent polling it misses them)\n",
                         escapeText(agentSocket).c_str());
        if (countReached(state) || state.outputGone) break;
        if (!stopRequested) sleepMillis(line.intervalMs);
    }
    return Outcome::success();
}
