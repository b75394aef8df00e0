// new, left, changed, list and watch: the commands that show hosts.
#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <vector>

#include "client.h"
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
    while (!stopRequested) {
        Outcome polled = pollOnce(state);
        if (!polled.ok()) return polled;
        if (countReached(state) || state.outputGone) break;
        if (!stopRequested) sleepMillis(line.intervalMs);
    }
    return Outcome::success();
}
