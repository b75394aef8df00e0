#include "hosts/liveness.h"

#include <arpa/inet.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "core/clock.h"
#include "core/log.h"
#include "core/paths.h"
#include "core/settings.h"
#include "hosts/departures.h"
#include "hosts/host_table.h"
#include "platform/mib.h"
#include "platform/os.h"
#include "platform/zvt.h"

namespace {

// Log lines and disconnect records name the operation, not the helper they sit in.
constexpr const char *kAgeingName = "invalidAgingOutHostrix";
constexpr const char *kLinkDownName = "disableHostrixByPortIdx";

constexpr size_t kShellCommandSize = 256;
constexpr size_t kDumpLineSize = 256;
constexpr size_t kNeighCommandSize = 128;
constexpr size_t kMacTextSize = 18;
constexpr char kIdleTag[] = "Idle(s)=";
constexpr int kNoPhyId = -1;

// Monotonic seconds truncated to 32 bits, as updateTime is stored. An unreadable
// clock gives 0: every host then looks freshly confirmed and nobody is aged out.
int64_t monotonicNow() { return static_cast<uint32_t>(monotonicSeconds()); }

void logAgeingState(const hostEntry &entry, int64_t idle) {
    if (!(dbg_level & DBG_AGEING)) return;
    char macText[kMacTextSize];
    std::snprintf(macText, sizeof macText, "%02x:%02x:%02x:%02x:%02x:%02x",
                  MAC_ARGS(entry.lanHost.mac));
    hostrixLog("[%s %d]: macAddrStr=%s valid = %d, (now - update) = %zd, idleSecs = %d.\n",
               kAgeingName, __LINE__, macText, entry.valid, static_cast<ssize_t>(idle),
               static_cast<int>(entry.idleSecs));
    hostrixLog("[%s %d]: NET_INFO_IDLE_TIMEOUT=%d, NET_INFO_AGEOUT_TIME=%d.\n", kAgeingName,
               __LINE__, static_cast<int>(NET_INFO_IDLE_TIMEOUT),
               static_cast<int>(NET_INFO_AGEOUT_TIME));
}

void ageOutHost(hostEntry *entry) {
    _disConnLanHost(entry, kAgeingName, __LINE__);
    HX_DBG(DBG_AGEING, "[%s %d]:Invalid ethernet lan host(" MAC_FMT ") (Aging Timeout)\n",
           kAgeingName, __LINE__, MAC_ARGS(entry->lanHost.mac));
    // A series that has used up its requests ends here; one still running keeps its
    // target so that its remaining requests still go out.
    if (entry->lanHost.arpRetryCnt == 0) entry->lanHost.arpReqIp = 0;
}

void closeProbing(lanHostInfo_t &host) {
    if (host.arpReqIp == 0) return;
    host.arpReqIp = 0;
    host.arpRetryCnt = 0;
}

// Without an IPv4 address there is nothing to ask for; an open series (even one
// that has run out) is not restarted.
void openProbing(lanHostInfo_t &host) {
    if (host.ip == 0 || host.arpReqIp != 0) return;
    host.arpReqIp = host.ip;
    host.arpRetryCnt = NET_INFO_ARP_RETRY;
    char ipText[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &host.ip, ipText, sizeof ipText);
    HX_DBG(DBG_AGEING,
           "[%s %d]: LAN host=" MAC_FMT ", is idle, try to request ARP with ip:%s %d times.\n",
           kAgeingName, __LINE__, MAC_ARGS(host.mac), ipText, static_cast<int>(host.arpRetryCnt));
}

void ageHost(hostEntry *entry, int64_t now) {
    int64_t idle = now - static_cast<int64_t>(entry->updateTime);
    logAgeingState(*entry, idle);
    if (idle >= NET_INFO_IDLE_TIMEOUT && !isActiveInFcTable(entry)) {
        ageOutHost(entry);
        return;
    }
    if (entry->idleSecs < NET_INFO_AGEOUT_TIME && idle < NET_INFO_AGEOUT_TIME) {
        closeProbing(entry->lanHost);
        return;
    }
    openProbing(entry->lanHost);
}

bool fileExists(const char *path) {
    struct stat info {};
    return stat(path, &info) == 0;
}

// The forwarding engine's dump is copied once per ageing pass, by the first wired
// host that needs it; the pass deletes the copy at its end.
bool ensureFcSnapshot(const char *path) {
    if (fileExists(path)) return true;
    char command[kShellCommandSize];
    std::snprintf(command, sizeof command, "cat /proc/fc/sw_dump/l2 > %s", path);
    va_cmd_no_error("/bin/sh", 2, 1, "-c", command);
    return fileExists(path);
}

// The dump line after the one holding the MAC carries the engine's idle seconds.
bool fcIdleBelowTimeout(FILE *stream) {
    char line[kDumpLineSize];
    if (!std::fgets(line, sizeof line, stream)) return false;
    if (!std::fgets(line, sizeof line, stream)) return false;
    const char *tag = std::strstr(line, kIdleTag);
    if (!tag) return false;
    auto idle = static_cast<uint32_t>(std::atoi(tag + sizeof kIdleTag - 1));
    return idle < NET_INFO_IDLE_TIMEOUT;
}

bool isLanPhyPort(uint8_t portId) {
    for (int index = 0; index < kLanPortCount; ++index) {
        int phy = zvt_port_get_lan_phyID(index);
        if (phy != kNoPhyId && phy == portId) return true;
    }
    return false;
}

// Without their kernel neighbour entries the host is not rediscovered from stale
// ARP or IPv6 neighbour data before it really comes back.
void deleteNeighbours(const lanHostInfo_t &host) {
    char command[kNeighCommandSize];
    if (host.ip != 0) {
        char ipText[INET_ADDRSTRLEN] = {};
        inet_ntop(AF_INET, &host.ip, ipText, sizeof ipText);
        std::snprintf(command, sizeof command, "/bin/arp -d %s", ipText);
        os_system(command);
    }
    if (!isZeroIpv6(host.ipv6)) {
        char ipText[INET6_ADDRSTRLEN] = {};
        inet_ntop(AF_INET6, host.ipv6, ipText, sizeof ipText);
        std::snprintf(command, sizeof command, "/bin/ip -6 neigh del %s dev br0", ipText);
        os_system(command);
    }
}

void linkDownHost(hostEntry *entry, uint8_t portId) {
    HX_DBG(DBG_LOOKUP, "[%s %d] remove the entry:portIdx=%d, tmp->lanHost.mac.octet(" MAC_FMT ")\n",
           kLinkDownName, __LINE__, portId, MAC_ARGS(entry->lanHost.mac));
    deleteNeighbours(entry->lanHost);
    _disConnLanHost(entry, kLinkDownName, __LINE__);
}

}  // namespace

void _disConnLanHost(hostEntry *entry, const char *caller, int line) {
    if (!entry) return;
    HX_DBG(DBG_TRACE, "[%s %d] disconnect host(" MAC_FMT ") called by %s:%d\n", __func__, __LINE__,
           MAC_ARGS(entry->lanHost.mac), caller, line);
    time_t now = os_time();
    HX_DBG(DBG_TRACE, "[%s %d]:disconnect lanhost(" MAC_FMT ")\n", __func__, __LINE__,
           MAC_ARGS(entry->lanHost.mac));
    // A host already offline keeps the time it left.
    if (entry->valid != 0) noteDeparture(entry->lanHost.mac, monotonicMilliseconds());
    entry->valid = 0;
    entry->idleSecs = 0;
    entry->lanHost.onLineTime = 0;
    entry->lanHost.firstConnect = 0;
    entry->lanHost.disConnect = 1;
    entry->arpReqTime = 0;
    formatHostTime(entry->lanHost.disConnectTime, now);
}

int invalidAgingOutHostrix() {
    int64_t now = monotonicNow();
    for (hostEntry &entry : hostPool)
        if (entry.valid == 1) ageHost(&entry, now);
    removeFcLutList();
    return 0;
}

int isActiveInFcTable(hostEntry *entry) {
    // Wireless stations are not in the switch's forwarding engine.
    if (entry->lanHost.connectionType == CONNECTION_WIRELESS) return 0;
    const char *path = hostrixPath(HostrixFile::FcLutList);
    if (!ensureFcSnapshot(path)) return 0;
    char command[kShellCommandSize];
    std::snprintf(command, sizeof command, "cat %s | grep -A 1 \"%02x:%02x:%02x:%02x:%02x:%02x\"",
                  path, MAC_ARGS(entry->lanHost.mac));
    UniquePipe pipe(os_popen_read(command));
    if (!pipe) return 0;
    return fcIdleBelowTimeout(pipe.get()) ? 1 : 0;
}

int removeFcLutList() {
    unlink(hostrixPath(HostrixFile::FcLutList));
    return 0;
}

int disableHostrixByPortIdx(uint8_t portId) {
    if (!isLanPhyPort(portId)) {
        std::fprintf(stderr, "%s: no LAN port has phy id %d\n", kLinkDownName, portId);
        return -1;
    }
    for (hostEntry *head : hashHeads) {
        for (hostEntry *entry = head; entry; entry = entry->next) {
            if (entry->phyPortId != portId || isZeroMac(entry->lanHost.mac)) continue;
            if (entry->valid == 1) linkDownHost(entry, portId);
        }
    }
    return 0;
}
