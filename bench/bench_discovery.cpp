// One discovery cycle over a full home LAN on the fake platform: 256 hosts behind
// 300 forwarding entries, with ARP, lease, IPv6 and station sources answered from
// memory. Reports the time per cycle.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>

#include "core/settings.h"
#include "discovery/discovery.h"
#include "discovery/sources.h"
#include "hosts/host_table.h"
#include "platform/fake/fake_platform.h"
#include "sniffer/neighbor_cache.h"

namespace {

constexpr int kHosts = 256;
constexpr int kForwardingEntries = 300;
constexpr const char *kPorts[] = {"eth0.2", "eth0.3", "eth0.4", "eth0.5", "wlan0", "wlan1"};

fake::Mac hostMac(int i) { return fake::mac(0x0a, 0x77, 0, 0, i >> 8, i & 0xff); }

std::string macText(const fake::Mac &m) {
    char text[18];
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", m[0], m[1], m[2], m[3], m[4],
                  m[5]);
    return text;
}

void addStation(const char *ifname, const fake::Mac &mac) {
    if (fake::state().stations[ifname].size() <= 64) fake::addStation(ifname, mac);
}

void addHost(int i, std::string &arp, std::string &neigh) {
    fake::Mac mac = hostMac(i);
    const char *port = kPorts[i % 6];
    fake::state().fdb.push_back({mac, port, 150, 1, 0});
    std::string ip = "10.77." + std::to_string(i / 200) + "." + std::to_string(i % 200 + 2);
    arp += ip + " 0x1 0x2 " + macText(mac) + " * br0\n";
    neigh += "fd77::" + std::to_string(i + 1) + " dev br0 lladdr " + macText(mac) + " REACHABLE\n";
    dhcp_lease lease{};
    std::copy(mac.begin(), mac.end(), lease.mac);
    inet_pton(AF_INET, ip.c_str(), &lease.ip);
    lease.leaseTime = htonl(3600);
    std::snprintf(lease.hostname, sizeof lease.hostname, "host-%d", i);
    fake::state().leases.push_back(lease);
    if (port[0] == 'w') addStation(port, mac);
}

void buildLan() {
    fake::reset();
    settingsReset();
    initHostrixData();
    resetDiscoverySources();
    aging_neighbor_host(1);
    setMaxLanHostNum(kHosts);
    std::string arp = "IP address HW type Flags HW address Mask Device\n", neigh;
    for (int i = 0; i < kHosts; ++i) addHost(i, arp, neigh);
    for (int i = kHosts; i < kForwardingEntries; ++i)  // silent MACs: no address anywhere
        fake::state().fdb.push_back({hostMac(i), "eth0.2", 150, 1, 0});
    fake::state().kernelFiles["/proc/net/arp"] = arp;
    fake::state().commandOutput["ip -6 neigh"] = neigh;
}

void BM_DiscoveryCycle(benchmark::State &state) {
    buildLan();
    __zvt_hostrix_update_from_arp();
    for (auto _ : state) {
        fake::advanceSeconds(1);
        __zvt_hostrix_update_from_arp();
        fake::state().commands.clear();
    }
    state.counters["hosts"] = static_cast<double>(lanHostNum);
}
BENCHMARK(BM_DiscoveryCycle)->Unit(benchmark::kMicrosecond);

}  // namespace
