// libzvt on the fake state.
#include <cstdio>
#include <cstring>

#include "platform/fake/fake_platform.h"
#include "platform/zvt.h"

namespace {

int lookupId(const std::map<std::string, int> &ids, const char *ifname) {
    auto it = ids.find(ifname ? ifname : "");
    return it == ids.end() ? -1 : it->second;
}

fake::Mac entryMac(const void *entry) {
    fake::Mac mac;
    std::memcpy(mac.data(), entry, 6);  // a host entry begins with its MAC
    return mac;
}

int readCounters(const std::map<fake::Mac, fake::CounterPair> &set, void *entry,
                 uint64_t pair[2]) {
    auto it = set.find(entryMac(entry));
    if (it == set.end()) return -1;
    pair[0] = it->second.sent;
    pair[1] = it->second.received;
    return 0;
}

}  // namespace

int zvt_lan_LogID_get_by_if_name(const char *ifname) {
    return lookupId(fake::state().logicIds, ifname);
}

int zvt_lan_phyID_get_by_if_name(const char *ifname) {
    return lookupId(fake::state().phyIds, ifname);
}

int zvt_port_get_lan_phyID(int index) {
    if (index < 0 || index >= kLanPortCount) return -1;
    return lookupId(fake::state().phyIds, fake::state().lanPorts[index].c_str());
}

int zv_port_link_get(int phy, int *link) {
    *link = fake::state().portSpeedCodes.count(phy) ? 1 : 0;
    return 0;
}

int zv_port_speedDuplex_get(int phy, int *speed, int *duplex) {
    auto &codes = fake::state().portSpeedCodes;
    auto it = codes.find(phy);
    if (it == codes.end()) return -1;
    *speed = it->second;
    *duplex = 1;
    return 0;
}

int zvt_wlan_get_sta_rate(const void *station, int direction, char *text, int size) {
    const auto *sta = static_cast<const wlStaInfo *>(station);
    uint32_t rate = direction == 0 ? sta->txRateKbps : sta->rxRateKbps;
    std::snprintf(text, static_cast<size_t>(size), "%u", rate / 1000);
    return 0;
}

int zvt_wlan_get_sta_wireless_mode(const char *ifname, const unsigned char * /*mac*/,
                                   int /*flag*/, char *text) {
    auto &modes = fake::state().wirelessModes;
    auto it = modes.find(ifname ? ifname : "");
    std::snprintf(text, 9, "%s", it == modes.end() ? "" : it->second.c_str());
    return 0;
}

int zvt_ipv6_send_neigh_solicit(const char *ifname, const void *addr) {
    std::array<uint8_t, 16> bytes;
    std::memcpy(bytes.data(), addr, 16);
    fake::state().neighSolicits.emplace_back(ifname ? ifname : "", bytes);
    return 0;
}

int zvt_fc_host_police_control_mib_counter_init() {
    ++fake::state().counterInitCalls;
    return 0;
}

int zvt_fc_update_lan_hpc_for_mib(void *entry, int on) {
    fake::state().hpcUpdates.emplace_back(entryMac(entry), on);
    return 0;
}

int zvt_update_lan_hpc_for_mib(void *entry, int on) {
    fake::state().hpcUpdates.emplace_back(entryMac(entry), on);
    return 0;
}

int zvt_commit_lan_hpc() {
    ++fake::state().hpcCommits;
    return 0;
}

int zvt_host_police_control_mib_counter_get_begin() { return 0; }
int zvt_host_police_control_mib_counter_get_end() { return 0; }

int zvt_host_police_control_mib_counter_get(void *entry, uint64_t pair[2]) {
    return readCounters(fake::state().counters, entry, pair);
}

int zvt_fc_host_police_control_mib_counter_get(void *entry, uint64_t pair[2]) {
    return readCounters(fake::state().fcCounters, entry, pair);
}
