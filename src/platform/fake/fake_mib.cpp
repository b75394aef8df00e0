// libmib on the fake state.
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/fake/fake_platform.h"
#include "platform/mib.h"

namespace {

std::string joinArgs(int argc, va_list args) {
    std::string line;
    for (int i = 0; i < argc; ++i) {
        const char *arg = va_arg(args, const char *);
        if (i) line += ' ';
        line += arg ? arg : "";
    }
    return line;
}

const fake::Interface *findInterface(const char *ifname) {
    auto &interfaces = fake::state().interfaces;
    auto it = interfaces.find(ifname ? ifname : "");
    return it == interfaces.end() ? nullptr : &it->second;
}

}  // namespace

// The platform tables point into the fake state; refreshed by fake::reset().
const char *ELANRIF[kLanPortCount + 1];
const char *WLANIF[kWlanRootCount + 1];

void fake::refreshPortTables() {
    for (int i = 0; i < kLanPortCount; ++i) ELANRIF[i] = fake::state().lanPorts[i].c_str();
    for (int i = 0; i < kWlanRootCount; ++i) WLANIF[i] = fake::state().wlanRoots[i].c_str();
}

int mib_get_s(int id, void *buffer, int width) {
    if (fake::state().onSettingRead) fake::state().onSettingRead(id);
    auto &settings = fake::state().settings;
    auto it = settings.find(id);
    if (it == settings.end()) return 0;
    if (width == 1) {
        *static_cast<uint8_t *>(buffer) = static_cast<uint8_t>(it->second);
    } else if (width == 4) {
        std::memcpy(buffer, &it->second, 4);
    } else {
        return 0;
    }
    return 1;
}

int mib_chain_total(int chain) {
    if (chain != kChainWanConnections) return 0;
    return static_cast<int>(fake::state().wanChain.size());
}

int mib_chain_get(int chain, unsigned int index, void *buffer) {
    auto &rows = fake::state().wanChain;
    if (chain != kChainWanConnections || index >= rows.size()) return 0;
    std::memcpy(buffer, rows[index].data(), kChainRecordSize);
    return 1;
}

int mib_chain_get_wlan(const char *ifname, void *record, int *index) {
    auto &ssids = fake::state().ssids;
    auto it = ssids.find(ifname ? ifname : "");
    if (it == ssids.end()) return -1;
    std::memset(record, 0, kWlanConfigSize);
    std::strncpy(static_cast<char *>(record) + kWlanConfigSsidOffset, it->second.c_str(),
                 kWlanConfigSize - kWlanConfigSsidOffset - 1);
    if (index) *index = 0;
    return 0;
}

int getInAddr(const char *ifname, int type, void *buffer) {
    const fake::Interface *intf = findInterface(ifname);
    if (type != IP_ADDR || !intf || intf->addr == 0) return 0;
    std::memcpy(buffer, &intf->addr, 4);
    return 1;
}

int getMacAddr(const char *ifname, unsigned char *buffer) {
    const fake::Interface *intf = findInterface(ifname);
    if (!intf || !intf->hasMac) return -2;
    std::memcpy(buffer, intf->mac.data(), 6);
    return intf->macResult;
}

int getInFlags(const char *ifname, int *flags) {
    const fake::Interface *intf = findInterface(ifname);
    if (!intf) return 0;
    *flags = intf->flags;
    return 1;
}

int getWlStaInfo(const char *ifname, void *buffer) {
    auto &stations = fake::state().stations;
    auto it = stations.find(ifname ? ifname : "");
    if (it == stations.end()) return -1;
    size_t count = std::min(it->second.size(), kMaxStaNum);
    std::memcpy(buffer, it->second.data(), count * kWlStaInfoSize);
    return 0;
}

int collect_bridge_fdb(fdb **head) {
    int count = 0;
    fdb **tail = head;
    for (const fake::FdbRow &row : fake::state().fdb) {
        fdb *node = newFdbNode();
        if (!node) break;
        std::memcpy(node->mac, row.mac.data(), 6);
        node->is_local = row.isLocal;
        node->ageing_timer_value = row.ageing;
        node->vid = row.vid;
        std::strncpy(node->ifname, row.ifname.c_str(), sizeof node->ifname - 1);
        *tail = node;
        tail = &node->next;
        ++count;
    }
    return count;
}

int getDhcpClientLeasesDB(dhcp_lease **array, unsigned long *aux) {
    auto &leases = fake::state().leases;
    if (aux) *aux = 0;
    *array = nullptr;
    if (leases.empty()) return 0;
    *array = static_cast<dhcp_lease *>(std::malloc(leases.size() * sizeof(dhcp_lease)));
    if (!*array) return 0;
    std::memcpy(*array, leases.data(), leases.size() * sizeof(dhcp_lease));
    return static_cast<int>(leases.size());
}

void mib_refresh() {}

int isDhcpClientLeasesDBChanged() { return fake::state().leasesChanged ? 1 : 0; }

int isTimeSynchronized() { return fake::state().timeSynchronized ? 1 : 0; }

// "/bin/sh -c LINE" is recorded as LINE, the command the daemon meant.
static void recordVaCmd(const char *program, int argc, va_list args) {
    std::string line = joinArgs(argc, args);
    const std::string shellPrefix = "-c ";
    if (std::string(program) == "/bin/sh" && line.rfind(shellPrefix, 0) == 0)
        line.erase(0, shellPrefix.size());
    else
        line = std::string(program) + " " + line;
    fake::recordCommand(line);
}

int va_cmd(const char *program, int argc, int wait, ...) {
    va_list args;
    va_start(args, wait);
    recordVaCmd(program, argc, args);
    va_end(args);
    return 0;
}

int va_cmd_no_error(const char *program, int argc, int wait, ...) {
    va_list args;
    va_start(args, wait);
    recordVaCmd(program, argc, args);
    va_end(args);
    return 0;
}
