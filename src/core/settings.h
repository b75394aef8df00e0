// The daemon's tunables from the configuration store, re-read on SIGUSR1, the debug
// FIFO command language and the bridge-bind port mask.
#pragma once

#include <cstdint>

// Setting ids in the configuration store.
enum : int {
    MIB_BANDWIDTH_ENABLE = 474,
    MIB_BANDWIDTH_INTERVAL = 475,
    MIB_MAX_LAN_HOST_NUM = 478,
    MIB_MAX_CONTROLLED_NUM = 479,
    MIB_DBG_LEVEL = 480,
    MIB_ARP_INTERVAL = 481,
    MIB_AGEOUT_TIME = 482,
    MIB_ARP_RETRY = 483,
    MIB_FDB_IDLE_MAX = 484,
    MIB_IDLE_TIMEOUT = 485,
};

extern uint32_t NET_INFO_ARP_INTERVAL;  // min seconds between two ARP requests to a host
extern uint32_t NET_INFO_AGEOUT_TIME;   // idle seconds before ARP probing starts
extern uint32_t NET_INFO_ARP_RETRY;     // ARP requests per probing series
extern uint32_t NET_INFO_FDB_IDLE_MAX;  // older forwarding entries are skipped
extern uint32_t NET_INFO_IDLE_TIMEOUT;  // idle seconds before a host is disconnected
extern uint32_t bridge_bind_logic_port_mask;

// Last values applied from the apply-if-changed settings; a rejected value is
// remembered too so that it is not retried at every reload.
struct AppliedSettings {
    uint32_t maxLanHostNum = 0;
    uint32_t maxControlledNum = 0;
    uint8_t bandwidthEnable = 0;
};

void readDirectSettings();
void applyChangedSettings(AppliedSettings &applied);
void applySnifferLogLevel();
void reloadSettings(AppliedSettings &applied);
uint32_t getBridgeBindPortMask();
int fifoCmdParse(char *text);

// Back to the start-up defaults (tests).
void settingsReset();
