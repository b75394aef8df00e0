#include "core/settings.h"

#include <cstdlib>
#include <cstring>

#include "core/log.h"
#include "hosts/host_table.h"
#include "platform/mib.h"
#include "sniffer/sniffer.h"
#include "traffic/bandwidth.h"

uint32_t NET_INFO_ARP_INTERVAL = 20;
uint32_t NET_INFO_AGEOUT_TIME = 60;
uint32_t NET_INFO_ARP_RETRY = 3;
uint32_t NET_INFO_FDB_IDLE_MAX = 90;
uint32_t NET_INFO_IDLE_TIMEOUT = 90;
uint32_t bridge_bind_logic_port_mask = 0;

namespace {

constexpr unsigned int kSnifferLevelVerbose = 7;
constexpr unsigned int kSnifferLevelErrors = 3;

// Reads a u32 setting; returns true only when the store answered.
bool readU32(int id, uint32_t &value) {
    uint32_t read = 0;
    if (!mib_get_s(id, &read, sizeof read)) return false;
    value = read;
    return true;
}

// Stores a changed value in CACHE; false when the store did not answer or nothing changed.
template <typename T>
bool takeIfChanged(int id, T &cache) {
    T value{};
    if (!mib_get_s(id, &value, sizeof value) || value == cache) return false;
    cache = value;
    return true;
}

// A bridged (mode 0), enabled connection contributes the LAN ports bound to it.
uint32_t boundPortsOf(const uint8_t *record) {
    if (record[kChainEnableOffset] == 0 || record[kChainModeOffset] != 0) return 0;
    const uint8_t *ports = record + kChainPortMaskOffset;  // little-endian on every box
    return uint32_t{ports[0]} | uint32_t{ports[1]} << 8 | uint32_t{ports[2]} << 16 |
           uint32_t{ports[3]} << 24;
}

}  // namespace

void readDirectSettings() {
    mib_refresh();  // start-up and SIGUSR1 read the store as it is now
    readU32(MIB_DBG_LEVEL, dbg_level);
    readU32(MIB_ARP_INTERVAL, NET_INFO_ARP_INTERVAL);
    readU32(MIB_AGEOUT_TIME, NET_INFO_AGEOUT_TIME);
    readU32(MIB_ARP_RETRY, NET_INFO_ARP_RETRY);
    readU32(MIB_FDB_IDLE_MAX, NET_INFO_FDB_IDLE_MAX);
    readU32(MIB_IDLE_TIMEOUT, NET_INFO_IDLE_TIMEOUT);
}

void applyChangedSettings(AppliedSettings &applied) {
    // A stored 0 never reaches the setters: it equals the initial cache.
    if (takeIfChanged(MIB_MAX_LAN_HOST_NUM, applied.maxLanHostNum))
        setMaxLanHostNum(applied.maxLanHostNum);
    if (takeIfChanged(MIB_MAX_CONTROLLED_NUM, applied.maxControlledNum))
        setMaxControlledNum(applied.maxControlledNum);
    takeIfChanged(MIB_BANDWIDTH_ENABLE, applied.bandwidthEnable);
    takeIfChanged(MIB_BANDWIDTH_INTERVAL, bandwidthInterval);
}

void applySnifferLogLevel() {
    setSnifferMonitorLogLevel((dbg_level & DBG_SNIFFER_VERBOSE) ? kSnifferLevelVerbose
                                                               : kSnifferLevelErrors);
}

void reloadSettings(AppliedSettings &applied) {
    HX_DBG(DBG_TRACE, "receive USR1 signal and processing....\n");
    readDirectSettings();
    applySnifferLogLevel();
    bridge_bind_logic_port_mask = getBridgeBindPortMask();
    HX_DBG(DBG_TRACE, "[%s %d]:bridge_bind_logic_port_mask = %d\n", __func__, __LINE__,
           bridge_bind_logic_port_mask);
    applyChangedSettings(applied);
}

uint32_t getBridgeBindPortMask() {
    uint32_t mask = 0;
    int total = mib_chain_total(kChainWanConnections);
    uint8_t record[kChainRecordSize];
    for (int index = 0; index < total; ++index) {
        if (!mib_chain_get(kChainWanConnections, static_cast<unsigned int>(index), record))
            continue;
        mask |= boundPortsOf(record);
    }
    return mask;
}

int fifoCmdParse(char *text) {
    char *save = nullptr;
    for (char *token = strtok_r(text, " \n", &save); token;
         token = strtok_r(nullptr, " \n", &save)) {
        if (std::strcmp(token, "log") != 0) continue;
        char *value = strtok_r(nullptr, " \n", &save);
        if (!value) return 0;
        dbg_level = static_cast<uint32_t>(std::strtoul(value, nullptr, 0));
        logPlain("dbg_level=0x%x\n", dbg_level);
        return 0;
    }
    return 0;
}

void settingsReset() {
    dbg_level = 0;
    NET_INFO_ARP_INTERVAL = 20;
    NET_INFO_AGEOUT_TIME = 60;
    NET_INFO_ARP_RETRY = 3;
    NET_INFO_FDB_IDLE_MAX = 90;
    NET_INFO_IDLE_TIMEOUT = 90;
    bridge_bind_logic_port_mask = 0;
    bandwidthInterval = 0;
}
