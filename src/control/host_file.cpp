#include "control/host_file.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

#include "core/log.h"
#include "core/paths.h"
#include "core/unique_fd.h"
#include "hosts/host_table.h"
#include "platform/mib.h"
#include "platform/os.h"
#include "traffic/bandwidth.h"

namespace {

constexpr mode_t kHostFileMode = 0644;
constexpr size_t kIpv6TextSize = 46;
// Five tries 10 ms apart: at most 40 ms of the main loop per write.
constexpr int kLockTries = 5;
constexpr useconds_t kLockRetryPauseUs = 10'000;

// Whether the last write found the lock held: one log line per blocked episode.
bool lockBlocked = false;

void dumpIdentity(const lanHostInfo_t &host) {
    char ipv6Text[kIpv6TextSize] = {};
    inet_ntop(AF_INET6, host.ipv6, ipv6Text, sizeof ipv6Text);
    hostrixLog("================================================\n");
    hostrixLog("Mac              : " MAC_FMT "\n", MAC_ARGS(host.mac));
    hostrixLog("AgentMac         : " MAC_FMT "\n", MAC_ARGS(host.agentMac));
    hostrixLog("Dev name         : %s\n", host.devName);
    hostrixLog("IP               : %08x\n", ntohl(host.ip));
    hostrixLog("IPv6                : %s\n", ipv6Text);
    hostrixLog("Dev type         : %x\n", unsigned{host.devType});
}

void dumpAttachment(const lanHostInfo_t &host) {
    hostrixLog("connectionType   : %x\n", unsigned{host.connectionType});
    hostrixLog("ifName           : %s\n", host.ifName);
    hostrixLog("port             : %x\n", unsigned{host.port});
    hostrixLog("phy_port         : %x\n", unsigned{host.phy_port});
    hostrixLog("brand            : %s\n", host.brand);
    hostrixLog("model            : %s\n", host.model);
    hostrixLog("os               : %s\n", host.os);
    hostrixLog("onLineTime       : %u\n", host.onLineTime);
    hostrixLog("firstConnect     : %x\n", unsigned{host.firstConnect});
    hostrixLog("disConnect       : %x\n", unsigned{host.disConnect});
}

void dumpTraffic(const lanHostInfo_t &host) {
    hostrixLog("upRate           : %u\n", host.upRate);
    hostrixLog("downRate         : %u\n", host.downRate);
    hostrixLog("rxBytes          : %llu\n", static_cast<unsigned long long>(host.rxBytes));
    hostrixLog("txBytes          : %llu\n", static_cast<unsigned long long>(host.txBytes));
    hostrixLog("rx_packets       : %u\n", host.rx_packets);
    hostrixLog("tx_packets       : %u\n", host.tx_packets);
    hostrixLog("rx_errors        : %u\n", host.rx_errors);
    hostrixLog("rx_dropped       : %u\n", host.rx_dropped);
}

void dumpWireless(const lanHostInfo_t &host) {
    hostrixLog("negRxRate        : %s\n", host.negRxRate);
    hostrixLog("negTxRate        : %s\n", host.negTxRate);
    hostrixLog("ssidName         : %s\n", host.ssidName);
    hostrixLog("rssi             : %d\n", host.rssi);
    hostrixLog("=================================================\n");
}

void logWrittenMac(const lanHostInfo_t &host) {
    HX_DBG(DBG_COMMAND, "writeLanHostInfo LanHost MAC(%02x:%02x:%02x:%02x:%02x:%02x).\n",
           MAC_ARGS(host.mac));
}

// Refreshes and dumps every online host in slot order; those with an arrival time
// go into LIST. Returns how many did.
int collectOnlineHosts(hostEntry **list) {
    auto uptime = static_cast<uint32_t>(os_uptime());
    int count = 0;
    for (hostEntry &entry : hostPool) {
        if (!entry.valid) continue;
        if (entry.startOnLine) list[count++] = &entry;
        refreshReportedFields(&entry, uptime);
        logWrittenMac(entry.lanHost);
        dumpLanHostInfo(&entry);
    }
    return count;
}

void writeRecords(int fd, hostEntry *const *list, int count) {
    for (int m = 0; m < count; ++m) {
        HX_DBG(DBG_COMMAND,
               "writeLanHostInfo LanHost k=%d, m=%d, startOnLine=%u, sieof(lanHostInfo_t)=%ld.\n",
               count, m, list[m]->startOnLine, static_cast<long>(kLanHostInfoSize));
        logWrittenMac(list[m]->lanHost);
        // Short writes are not retried: readers take the lock and the next rewrite
        // replaces the whole list anyway.
        [[maybe_unused]] ssize_t written = write(fd, &list[m]->lanHost, kLanHostInfoSize);
    }
}

// The writer does not wait for the lock as readers do: any local user may read the
// file and hold a read lock for as long as they like, and the main loop must not stall
// behind them. A few quick tries, then the write is skipped and retried at the next tick.
bool lockWithoutWaiting(int fd) {
    for (int attempt = 1; flock_try_set(fd, kLockWrite) != 0; ++attempt) {
        if (attempt == kLockTries) return false;
        usleep(kLockRetryPauseUs);
    }
    return true;
}

void noteLockOutcome(const char *path, bool locked) {
    if (locked == !lockBlocked) return;
    lockBlocked = !locked;
    if (lockBlocked)
        hostrixLog("%s is locked by a reader: host file writes skipped until it is free\n", path);
    else
        hostrixLog("%s is free again: host file written\n", path);
}

}  // namespace

int writeLanHostInfo() {
    const char *path = hostrixPath(HostrixFile::HostInfo);
    UniqueFd fd(open(path, O_RDWR | O_CREAT | O_CLOEXEC, kHostFileMode));
    if (!fd.valid()) return -1;
    const bool locked = lockWithoutWaiting(fd.get());
    noteLockOutcome(path, locked);
    if (!locked) return kHostFileBusy;
    // On failure the close below also ends the lock.
    if (truncate(path, 0) != 0) return 0;
    hostEntry *list[kHostPoolSize];
    int count = collectOnlineHosts(list);
    sortLanHostByStartOnLine(list, count);
    writeRecords(fd.get(), list, count);
    flock_set(fd.get(), kLockUnlock);
    return 0;
}

// A bubble sort that swaps only on strictly greater, so equal arrival times keep
// their slot order; at most 256 entries every thirty seconds.
void sortLanHostByStartOnLine(hostEntry **list, int n) {
    for (int i = 0; i < n - 1; ++i) {
        for (int j = 0; j < n - i - 1; ++j) {
            if (list[j]->startOnLine > list[j + 1]->startOnLine) std::swap(list[j], list[j + 1]);
        }
    }
}

void dumpLanHostInfo(const hostEntry *entry) {
    if (!(dbg_level & DBG_COMMAND) || !entry) return;
    dumpIdentity(entry->lanHost);
    dumpAttachment(entry->lanHost);
    dumpTraffic(entry->lanHost);
    dumpWireless(entry->lanHost);
}
