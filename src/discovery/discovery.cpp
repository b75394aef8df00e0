#include "discovery/discovery.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <vector>

#include "core/clock.h"
#include "core/log.h"
#include "core/settings.h"
#include "core/text.h"
#include "discovery/ip_resolution.h"
#include "discovery/mac_index.h"
#include "discovery/sources.h"
#include "discovery/wlan_sta.h"
#include "hosts/departures.h"
#include "hosts/host_table.h"
#include "hosts/liveness.h"
#include "platform/mib.h"
#include "platform/os.h"
#include "platform/zvt.h"

namespace {

constexpr const char *kCycle = kDiscoveryCycleName;
constexpr uint32_t kFdbTicksPerSecond = 100;  // the bridge ages entries in 1/100 s
constexpr int64_t kMsPerFdbTick = 10;
constexpr size_t kIfnameCopyLen = 16;  // interface names are at most 15 characters
constexpr int kNoPhyId = -1;
constexpr int kMaxLogicPort = 31;  // the bridge-bind mask has 32 bits
constexpr int kDefaultPortIndex = 1;

// What a port's name says about the hosts behind it. A cycle's hundreds of entries
// share a handful of ports, so each name is classified once per cycle; the settings
// behind the answers do not change within a cycle.
struct PortFacts {
    char recordName[sizeof fdb::ifname];  // the forwarding entry's name field, whole
    bool ignored;
    int lanPort;    // 0 for a wireless port
    int ssidIndex;  // the wireless port's SSID slot
    int logicPort;
};

constexpr size_t kKnownPortsPerCycle = 16;
std::array<PortFacts, kKnownPortsPerCycle> knownPorts;
size_t knownPortCount = 0;

PortFacts classifyPort(const fdb &record, const char *ifname) {
    PortFacts facts{};
    std::memcpy(facts.recordName, record.ifname, sizeof facts.recordName);
    facts.ignored = is_ignore_ifname(ifname) == 1;
    facts.lanPort = get_lan_port_by_ifname(ifname);
    facts.ssidIndex = get_ssid_index_by_ifname(ifname);
    facts.logicPort = zvt_lan_LogID_get_by_if_name(ifname);
    return facts;
}

// The facts of RECORD's port, whose name cut to size is IFNAME. Entries are matched on
// their whole name field: equal fields mean equal names, and a field with other bytes
// after its name only costs a second classification.
PortFacts portFacts(const fdb &record, const char *ifname) {
    for (size_t i = 0; i < knownPortCount; ++i)
        if (std::memcmp(knownPorts[i].recordName, record.ifname, sizeof record.ifname) == 0)
            return knownPorts[i];
    PortFacts facts = classifyPort(record, ifname);
    if (knownPortCount < knownPorts.size()) knownPorts[knownPortCount++] = facts;
    return facts;
}

// The working values of one forwarding entry.
struct CycleEntry {
    DiscoveryStep step;
    char ifname[kIfnameCopyLen] = {};
    PortFacts facts = {};
    bool newHost = false;
    uint8_t connType = CONNECTION_WIRED;
    uint8_t port = 0;
    uint32_t now = 0;
};

bool contains(const char *text, const char *part) {
    return std::strstr(text, part) != nullptr;
}

// An entry older than the limit only tells a known host how long it has been idle.
bool tooOldForDiscovery(const fdb &record) {
    uint32_t ageSecs = record.ageing_timer_value / kFdbTicksPerSecond;
    if (ageSecs <= NET_INFO_FDB_IDLE_MAX) return false;
    HX_DBG(DBG_AGEING,
           "[%s %d]: " MAC_FMT " ageing_timer_value=%d over %d sec, update idleSecs only.\n",
           kCycle, __LINE__, MAC_ARGS(record.mac), static_cast<int>(ageSecs),
           static_cast<int>(NET_INFO_FDB_IDLE_MAX));
    if (hostEntry *entry = getHostrixByMac(record.mac)) entry->idleSecs = ageSecs;
    return true;
}

void startEntry(const fdb &record, CycleEntry &work) {
    std::memcpy(work.step.mac, record.mac, kMacLen);
    int port = work.facts.lanPort;
    work.port = static_cast<uint8_t>(port);
    work.connType = port == 0 ? CONNECTION_WIRELESS : CONNECTION_WIRED;
}

// Once a recycling pass frees nothing, the rest of the cycle skips it: within a cycle
// an entry can only become recyclable after it was handed out as a new host.
bool recyclingExhausted = false;

hostEntry *acquireEntry(CycleEntry &work) {
    if (hostEntry *entry = getHostrixByMac(work.step.mac)) return entry;
    hostEntry *entry = getFreeFromFreeList();
    if (!entry && !recyclingExhausted) {
        RecycleInvalidHostrix();
        entry = getFreeFromFreeList();
    }
    recyclingExhausted = entry == nullptr;
    work.newHost = true;
    if (!entry)
        HX_DBG(DBG_TRACE,
               "[%s %d]:can not get hostrix, maybe lan host number is larger than max lan host "
               "number!!\n",
               kCycle, __LINE__);
    return entry;
}

// False when a known station has dropped out of the station lists but is still
// learnt on the same wireless interface: it is left alone this cycle.
bool classifyWifi(hostEntry &entry, CycleEntry &work) {
    lanHostInfo_t &host = entry.lanHost;
    if (work.connType != CONNECTION_WIRELESS) {
        host.isWifi = 0;
        return true;
    }
    bool station = is_wifi_station(work.step.mac) == 1;
    work.port = static_cast<uint8_t>(work.facts.ssidIndex);
    if (!station && !work.newHost && host.isWifi == 1 && host.port == work.port) return false;
    host.isWifi = station ? 1 : 0;
    if (station) {
        HX_DBG(DBG_TRACE, "[%s %d]: " MAC_FMT " is a wifi station\n", kCycle, __LINE__,
               MAC_ARGS(work.step.mac));
        zvt_wlan_get_sta_wireless_mode(work.ifname, work.step.mac, 1, host.wirelessMode);
    } else {
        HX_DBG(DBG_TRACE, "[%s %d]: " MAC_FMT " is maybe mesh device\n", kCycle, __LINE__,
               MAC_ARGS(work.step.mac));
    }
    return true;
}

void logEntry(const hostEntry &entry, const CycleEntry &work, const fdb &record, uint32_t orgIP) {
    if (!(dbg_level & (DBG_TRACE | DBG_IP_SOURCE))) return;
    char ipText[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &orgIP, ipText, sizeof ipText);
    hostrixLog("[%s %d]: host MAC=" MAC_FMT
               ", orgIP=%s, connType=%d, isWifi=%d, fdb.vid=%d, ifname=%s, idle=%d, newHost=%d\n",
               kCycle, __LINE__, MAC_ARGS(record.mac), ipText, work.connType, entry.lanHost.isWifi,
               record.vid, work.ifname, static_cast<int>(entry.idleSecs), work.newHost ? 1 : 0);
}

bool isBridgeBound(int logicPort) {
    if (logicPort < 0 || logicPort > kMaxLogicPort) return false;
    return ((1u << logicPort) & bridge_bind_logic_port_mask) != 0;
}

void prepareEntry(hostEntry &entry, CycleEntry &work, const fdb &record) {
    lanHostInfo_t &host = entry.lanHost;
    uint32_t orgIP = host.ip;
    work.step.needSniffer = true;
    work.now = static_cast<uint32_t>(monotonicSeconds());
    entry.idleSecs = record.ageing_timer_value / kFdbTicksPerSecond;
    if (work.newHost) {
        host.arpReqIp = 0;
        host.arpRetryCnt = 0;
    }
    host.firstGotIP = 0;
    logEntry(entry, work, record, orgIP);
    int logicPort = work.facts.logicPort;
    work.step.isBridgeBind = isBridgeBound(logicPort);
    HX_DBG(DBG_TRACE, "[%s %d]:lan %s logic_port is %d, is_bridge_bind = %d\n", kCycle, __LINE__,
           work.ifname, logicPort, work.step.isBridgeBind ? 1 : 0);
}

void initNewHost(hostEntry &entry, const CycleEntry &work) {
    lanHostInfo_t &host = entry.lanHost;
    entry.valid = 0;
    std::memcpy(host.mac, work.step.mac, kMacLen);
    host.devType = 0;
    for (char *text : {host.brand, host.model, host.os})
        copyText(text, kHostTextLen, kUnknownProfile);
    host.internetAccess = kInternetAccessDefault;
    host.otherAccess = kOtherAccessDefault;
    entry.informChange = 1;
}

// Port and connection type changes are reported only once the arrival has been.
void updatePortFields(hostEntry &entry, const CycleEntry &work) {
    lanHostInfo_t &host = entry.lanHost;
    if (host.port != work.port) {
        host.port = work.port;
        if (host.firstConnect == 0) entry.informChange = 1;
    }
    if (host.connectionType != work.connType) {
        host.connectionType = work.connType;
        if (host.firstConnect == 0) entry.informChange = 1;
    }
    int phy = zvt_lan_phyID_get_by_if_name(work.ifname);
    if (phy != kNoPhyId) {
        entry.phyPortId = static_cast<int8_t>(phy);
        host.phy_port = static_cast<uint8_t>(phy);
    }
    if (std::strncmp(host.ifName, work.ifname, kHostTextLen) != 0)
        copyText(host.ifName, kHostTextLen, work.ifname);
}

// True when the host has no address left: a new entry goes back to the pool, a known
// host goes offline.
bool dropWithoutAddress(hostEntry &entry, const CycleEntry &work) {
    const lanHostInfo_t &host = entry.lanHost;
    if (host.ip != 0 || !isZeroIpv6(host.ipv6)) return false;
    HX_DBG(DBG_TRACE, "[%s %d]: host(" MAC_FMT ") no IP address, %s it !!\n", kCycle, __LINE__,
           MAC_ARGS(work.step.mac), work.newHost ? "ignore" : "disconnect");
    if (work.newHost)
        insertIntoFreeList(&entry);
    else
        _disConnLanHost(&entry, kCycle, __LINE__);
    HX_DBG(DBG_TRACE, "[%s %d]: continue\n", kCycle, __LINE__);
    return true;
}

void keepHost(hostEntry &entry, const CycleEntry &work) {
    updateStaInfo(&entry);
    entry.lanHost.disConnect = 0;
    entry.updateTime = work.now;
    if (!work.newHost) return;
    HX_DBG(DBG_NEW_HOST, "[%s %d]: add new host(" MAC_FMT ")\n", kCycle, __LINE__,
           MAC_ARGS(work.step.mac));
    addNewToHashList(&entry, entry.lanHost.mac);
    updateLanHostHpc(&entry, 1);
}

void stampArrival(hostEntry &entry, const CycleEntry &work) {
    lanHostInfo_t &host = entry.lanHost;
    time_t wall = os_time();
    formatHostTime(host.latestActiveTime, wall);
    tm local{};
    localtime_r(&wall, &local);
    HX_DBG(DBG_TRACE, "[%s %d]: latestActiveTime=%d:%d:%d\n", kCycle, __LINE__, local.tm_hour,
           local.tm_min, local.tm_sec);
    if (isTimeSynchronized() == 1) host.latestActiveTimeSynced = 1;
    host.firstConnect = 1;
    entry.startOnLine = work.now;
}

// An arrival stamped before the clock was set is restamped once, when it is.
void restampAfterTimeSync(hostEntry &entry) {
    lanHostInfo_t &host = entry.lanHost;
    if (host.latestActiveTimeSynced != 0 || isTimeSynchronized() == 0) return;
    time_t wall = os_time();
    if (wall < 0) return;
    formatHostTime(host.latestActiveTime, wall - static_cast<time_t>(host.onLineTime));
    host.latestActiveTimeSynced = 1;
}

void confirmHost(hostEntry &entry, const CycleEntry &work) {
    if (entry.valid == 0)
        stampArrival(entry, work);
    else
        restampAfterTimeSync(entry);
    entry.valid = 1;
}

// The bridge has not seen the MAC since its host went offline.
bool staleSinceDeparture(const fdb &record, int64_t nowMs) {
    if (!isStaleSinceDeparture(record.mac, record.ageing_timer_value * kMsPerFdbTick, nowMs))
        return false;
    HX_DBG(DBG_TRACE, "[%s %d]: " MAC_FMT " not seen since it left, skipped\n", kCycle, __LINE__,
           MAC_ARGS(record.mac));
    return true;
}

void processEntry(const fdb &record, const DiscoverySources &sources, int64_t nowMs) {
    if (tooOldForDiscovery(record) || staleSinceDeparture(record, nowMs)) return;
    CycleEntry work;
    copyText(work.ifname, std::min(sizeof work.ifname, kIfnameCopyLen),
             std::string_view(record.ifname, strnlen(record.ifname, sizeof record.ifname)));
    if (record.is_local) return;
    work.facts = portFacts(record, work.ifname);
    if (work.facts.ignored) {
        HX_DBG(DBG_TRACE, "[%s %d]: ignore ifname %s\n", kCycle, __LINE__, work.ifname);
        return;
    }
    startEntry(record, work);
    selectArpEntry(sources.arp, work.step);
    hostEntry *entry = acquireEntry(work);
    if (!entry || !classifyWifi(*entry, work)) return;
    prepareEntry(*entry, work, record);
    if (work.newHost) initNewHost(*entry, work);
    updatePortFields(*entry, work);
    resolveHostAddresses(*entry, work.step, sources);
    if (dropWithoutAddress(*entry, work)) return;
    keepHost(*entry, work);
    confirmHost(*entry, work);
}

// With VLAN filtering the bridge keeps a copy of a MAC per VLAN. Only the freshest copy
// (lowest age, and its port) speaks for the MAC: a stale copy would overwrite idleSecs,
// and a MAC seen on two VLANs would flip its port every cycle. First-seen order is kept.
// The storage stays from cycle to cycle, so a steady cycle allocates nothing here.
const std::vector<const fdb *> &freshestCopies(const fdb *head) {
    struct Slot {
        uint64_t key;
        size_t chosenPlusOne;  // 0 while the slot is free
    };
    static std::vector<const fdb *> chosen;
    static std::vector<Slot> slots;
    size_t records = 0;
    for (const fdb *record = head; record; record = record->next) ++records;
    size_t size = 64;
    while (size < 2 * records) size *= 2;
    slots.assign(size, Slot{});
    chosen.clear();
    for (const fdb *record = head; record; record = record->next) {
        const uint64_t key = macKey(record->mac);
        size_t at = macSlot(key, size - 1);
        while (slots[at].chosenPlusOne && slots[at].key != key) at = (at + 1) & (size - 1);
        Slot &slot = slots[at];
        if (!slot.chosenPlusOne) {
            chosen.push_back(record);
            slot = Slot{key, chosen.size()};
        } else if (record->ageing_timer_value < chosen[slot.chosenPlusOne - 1]->ageing_timer_value) {
            chosen[slot.chosenPlusOne - 1] = record;
        }
    }
    return chosen;
}

void readSources(DiscoverySources &sources) {
    collectWlanStaInfo();
    collect_arp_entries(&sources.arp);
    refresh_dhcp_leases();
    collect_ipv6_neigh(&sources.ipv6);
}

}  // namespace

int get_lan_port_by_ifname(const char *name) {
    if (!name) return kDefaultPortIndex;
    if (contains(name, "wlan")) return 0;
    if (contains(name, ".mc")) return kDefaultPortIndex;  // a multicast copy has no port
    for (int i = 0; i < kLanPortCount; ++i)
        if (ELANRIF[i] && contains(name, ELANRIF[i])) return i + 1;
    return kDefaultPortIndex;
}

int get_ssid_index_by_ifname(const char *name) {
    if (!name) return kDefaultPortIndex;
    for (int radio = 0; radio < kWlanRootCount; ++radio) {
        for (int k = 0; k < kWlanIfPerRadio; ++k) {
            char candidate[kWlanIfnameLen + 1];
            wlanSlotName(radio, k, candidate);
            if (std::strcmp(candidate, name) == 0) return 1 + k + radio * kWlanIfPerRadio;
        }
    }
    return kDefaultPortIndex;
}

void __zvt_hostrix_update_from_arp() {
    read_ignore_ifnames();
    fdb *forwarding = nullptr;
    DiscoverySources sources;
    if (collect_bridge_fdb(&forwarding) > 0) {
        readSources(sources);
        const int64_t nowMs = monotonicMilliseconds();
        recyclingExhausted = false;
        knownPortCount = 0;
        for (const fdb *record : freshestCopies(forwarding)) processEntry(*record, sources, nowMs);
    }
    if (sources.arp) free_arp_entries(&sources.arp);
    if (sources.ipv6) free_ipv6_neigh(&sources.ipv6);
    if (forwarding) free_bridge_fdb(&forwarding);
    // The cycle's registrations reach the counters together, in one transaction.
    zvt_commit_lan_hpc();
}
