#include "discovery/wlan_sta.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "core/log.h"
#include "core/text.h"
#include "platform/os.h"
#include "platform/zvt.h"

wlanStaSlot wlanStaTable[kWlanSlotCount];

namespace {

constexpr int kIfFlagUp = 0x1;
constexpr size_t kFirstStaPosition = 1;  // position 0 of the driver's buffer is unused
constexpr size_t kFuncoffCommandSize = 256;
constexpr size_t kFuncoffLineSize = 256;
constexpr int kRateTextSize = 16;
constexpr int kRateTx = 0;
constexpr int kRateRx = 1;
constexpr int kSignalOffset = 100;  // rssi = signal - 100
constexpr size_t kSsidMaxLen = 62;
constexpr size_t kMacHexSize = 13;

// Link speed codes of the switch; null leaves the host's rate texts as they were.
constexpr std::array<const char *, 7> kSpeedTexts = {"10", "100", "1000", nullptr,
                                                     "10000", "2500", "5000"};

// The driver's station buffer; zero-filled before each interface is read.
std::array<wlStaInfo, kMaxStaNum> staWorkBuffer;

bool isAssociated(const wlStaInfo &sta) {
    return sta.inUse != 0 && (sta.flags & kStaAssociated) != 0;
}

void clearSlot(wlanStaSlot &slot, int index) {
    wlanSlotName(index / kWlanIfPerRadio, index % kWlanIfPerRadio, slot.name);
    slot.staNum = 0;
    std::free(slot.staList);
    slot.staList = nullptr;
}

// Up, not switched off, and its station list readable into the work buffer.
bool readStations(const char *name) {
    int flags = 0;
    if (getInFlags(name, &flags) == 0 || !(flags & kIfFlagUp)) return false;
    if (checkWlanFuncoff(name) != 0) return false;
    return getWlStaInfo(name, staWorkBuffer.data()) >= 0;
}

void keepAssociated(wlanStaSlot &slot) {
    uint32_t count = 0;
    for (size_t i = kFirstStaPosition; i < kMaxStaNum; ++i)
        if (isAssociated(staWorkBuffer[i])) ++count;
    if (count == 0) return;
    auto *list = static_cast<wlStaInfo *>(std::malloc(count * sizeof(wlStaInfo)));
    if (!list) return;
    uint32_t next = 0;
    for (size_t i = kFirstStaPosition; i < kMaxStaNum; ++i)
        if (isAssociated(staWorkBuffer[i])) list[next++] = staWorkBuffer[i];
    slot.staList = list;
    slot.staNum = count;
}

void collectSlot(int index) {
    wlanStaSlot &slot = wlanStaTable[index];
    staWorkBuffer.fill(wlStaInfo{});
    clearSlot(slot, index);
    if (readStations(slot.name)) keepAssociated(slot);
}

const wlStaInfo *findStation(const wlanStaSlot &slot, const uint8_t *mac) {
    for (uint32_t i = 0; i < slot.staNum; ++i)
        if (std::memcmp(slot.staList[i].mac, mac, kMacLen) == 0) return &slot.staList[i];
    return nullptr;
}

// The SSID is stored cut to 62 characters; a change is reported only once the
// host's arrival has been.
void updateSsid(hostEntry &entry, std::string_view ssid) {
    lanHostInfo_t &host = entry.lanHost;
    ssid = ssid.substr(0, kSsidMaxLen);
    if (std::string_view(host.ssidName, strnlen(host.ssidName, sizeof host.ssidName)) == ssid)
        return;
    if (host.firstConnect == 0) entry.informChange = 1;
    std::memset(host.ssidName, 0, sizeof host.ssidName);
    std::memcpy(host.ssidName, ssid.data(), ssid.size());
}

void applyStation(hostEntry &entry, const wlStaInfo &sta, std::string_view ssid) {
    lanHostInfo_t &host = entry.lanHost;
    zvt_wlan_get_sta_rate(&sta, kRateTx, host.negTxRate, kRateTextSize);
    zvt_wlan_get_sta_rate(&sta, kRateRx, host.negRxRate, kRateTextSize);
    host.rssi = static_cast<int32_t>(sta.signal) - kSignalOffset;
    updateSsid(entry, ssid);
}

void updateWirelessHost(hostEntry &entry) {
    std::array<char, kWlanConfigSize> config{};
    int index = 0;
    if (mib_chain_get_wlan(entry.lanHost.ifName, config.data(), &index) != 0) return;
    const char *ssidText = config.data() + kWlanConfigSsidOffset;
    std::string_view ssid(ssidText, strnlen(ssidText, kWlanConfigSize - kWlanConfigSsidOffset));
    // Once per slot: where a MAC shows in several slots, the last one decides.
    for (const wlanStaSlot &slot : wlanStaTable)
        if (const wlStaInfo *sta = findStation(slot, entry.lanHost.mac))
            applyStation(entry, *sta, ssid);
}

void updateWiredHost(lanHostInfo_t &host) {
    int phy = zvt_lan_phyID_get_by_if_name(host.ifName);
    int link = 0, speed = 0, duplex = 0;
    zv_port_link_get(phy, &link);
    zv_port_speedDuplex_get(phy, &speed, &duplex);
    if (speed < 0 || static_cast<size_t>(speed) >= kSpeedTexts.size()) return;
    const char *text = kSpeedTexts[static_cast<size_t>(speed)];
    if (!text) return;
    copyText(host.negRxRate, kRateTextSize, text);
    copyText(host.negTxRate, kRateTextSize, text);
}

}  // namespace

// Built by hand rather than with snprintf: discovery asks for every slot of every
// host in each cycle. Cut to the buffer, as snprintf would.
void wlanSlotName(int radio, int k, char (&name)[kWlanIfnameLen + 1]) {
    const char *root = WLANIF[radio] ? WLANIF[radio] : "";
    size_t length = strnlen(root, kWlanIfnameLen);
    std::memcpy(name, root, length);
    if (k > 0) {
        const char suffix[] = {'-', 'v', 'a', 'p', static_cast<char>('0' + k - 1)};
        size_t room = std::min(sizeof suffix, static_cast<size_t>(kWlanIfnameLen) - length);
        std::memcpy(name + length, suffix, room);
        length += room;
    }
    name[length] = '\0';
}

int collectWlanStaInfo() {
    for (int i = 0; i < kWlanSlotCount; ++i) collectSlot(i);
    return 0;
}

int checkWlanFuncoff(const char *ifname) {
    char command[kFuncoffCommandSize];
    std::snprintf(command, sizeof command,
                  "iwpriv %s get_mib func_off | tail -n 1 | awk -F':' '{print $NF}' | sed 's/ //g'",
                  ifname);
    UniquePipe pipe(os_popen_read(command));
    if (!pipe) return 0;
    char line[kFuncoffLineSize] = "";
    if (!std::fgets(line, sizeof line, pipe.get())) return 0;
    if (std::strtol(line, nullptr, 10) < 1) return 0;
    HX_DBG(DBG_TRACE, "%s:%d line %s\n", __func__, __LINE__, line);
    return 1;
}

int updateStaInfo(hostEntry *entry) {
    if (!entry) return 0;
    if (dbg_level & DBG_TRACE) {
        char macText[kMacHexSize];
        std::snprintf(macText, sizeof macText, "%02X%02X%02X%02X%02X%02X",
                      MAC_ARGS(entry->lanHost.mac));
        hostrixLog("%s:%d sfu sta Mac is (%s), valid is %d, offline is %d\n", __func__, __LINE__,
                   macText, entry->valid, entry->lanHost.offline);
    }
    if (entry->lanHost.connectionType == CONNECTION_WIRELESS)
        updateWirelessHost(*entry);
    else
        updateWiredHost(entry->lanHost);
    return 0;
}

void resetWlanStaTable() {
    for (wlanStaSlot &slot : wlanStaTable) std::free(slot.staList);
    std::memset(wlanStaTable, 0, sizeof wlanStaTable);
}
