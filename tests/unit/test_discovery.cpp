// The discovery cycle with its address resolution, on sources programmed in the fake.
#include <arpa/inet.h>

#include <string>

#include "discovery/discovery.h"
#include "discovery/ip_resolution.h"
#include "hosts/liveness.h"
#include "root_fixture.h"

namespace {

const fake::Mac kHost = fake::mac(0x0a, 0x77, 0, 0, 0, 1);
const fake::Mac kOther = fake::mac(0x0a, 0x77, 0, 0, 0, 2);

uint32_t ipv4(const char *text) {
    uint32_t ip = 0;
    inet_pton(AF_INET, text, &ip);
    return ip;
}

std::string macText(const fake::Mac &mac) {
    char text[18];
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2],
                  mac[3], mac[4], mac[5]);
    return text;
}

class DiscoveryTest : public RootedTest {
   protected:
    void SetUp() override {
        RootedTest::SetUp();
        setMaxLanHostNum(kHostPoolSize);
        fake::state().kernelFiles["/proc/net/arp"] =
            "IP address       HW type     Flags       HW address            Mask     Device\n";
    }
    void seen(const fake::Mac &mac, const char *ifname = "eth0.2", uint32_t ageing = 100) {
        fake::state().fdb.push_back({mac, ifname, ageing, 1, 0});
    }
    void arp(const char *ip, const fake::Mac &mac, const char *flags = "0x2") {
        fake::state().kernelFiles["/proc/net/arp"] +=
            std::string(ip) + " 0x1 " + flags + " " + macText(mac) + " * br0\n";
    }
    void lease(const fake::Mac &mac, const char *ip, uint32_t secs, const char *name = "") {
        dhcp_lease record{};
        std::copy(mac.begin(), mac.end(), record.mac);
        record.ip = ipv4(ip);
        record.leaseTime = htonl(secs);
        std::snprintf(record.hostname, sizeof record.hostname, "%s", name);
        fake::state().leases.push_back(record);
    }
    // One cycle a few seconds later, so that the lease snapshot is read again.
    hostEntry *cycle(const fake::Mac &mac = kHost) {
        fake::advanceSeconds(5);
        __zvt_hostrix_update_from_arp();
        return getHostrixByMac(mac.data());
    }
    static std::string ipOf(const hostEntry *entry) {
        char text[INET_ADDRSTRLEN];
        return inet_ntop(AF_INET, &entry->lanHost.ip, text, sizeof text);
    }
};

TEST_F(DiscoveryTest, NewDhcpHostArrivesWithItsLeaseOnceRecentlySeen) {
    seen(kHost, "eth0.3", 9100);
    lease(kHost, "10.77.0.101", 3600, "hx-h1");
    fake::state().phyIds["eth0.3"] = 2;
    EXPECT_EQ(cycle(), nullptr);  // 91 s is past the 90 s limit: nobody is created
    fake::state().fdb[0].ageing = 9000;
    hostEntry *entry = cycle();
    ASSERT_NE(entry, nullptr);
    const lanHostInfo_t &host = entry->lanHost;
    EXPECT_EQ(ipOf(entry), "10.77.0.101");
    EXPECT_STREQ(host.devName, "hx-h1");
    EXPECT_EQ(host.port, 2);
    EXPECT_EQ(host.connectionType, CONNECTION_WIRED);
    EXPECT_EQ(host.phy_port, 2);
    EXPECT_STREQ(host.ifName, "eth0.3");
    EXPECT_STREQ(host.brand, "OTHER");
    EXPECT_EQ(host.firstConnect, 1);
    EXPECT_EQ(host.firstGotIP, 1);
    EXPECT_EQ(entry->startOnLine, fake::state().monotonic.tv_sec);
    EXPECT_NE(host.latestActiveTime[0], '\0');
    EXPECT_EQ(fake::state().hpcUpdates.size(), 2u);  // both counter sets
    EXPECT_EQ(fake::state().hpcCommits, 2);  // every cycle ends by sending its registrations
    uint32_t confirmed = entry->updateTime;
    fake::state().fdb[0].ageing = 9100;  // too old again: only the idle time is kept
    cycle();
    EXPECT_EQ(entry->idleSecs, 91u);
    EXPECT_EQ(entry->updateTime, confirmed);
}

struct SkipCase {
    const char *name;
    const char *ifname;
    uint8_t isLocal;
    bool leased;
};
class SkippedPortTest : public DiscoveryTest, public ::testing::WithParamInterface<SkipCase> {};

TEST_P(SkippedPortTest, NeverCreatesAHost) {
    std::ofstream(hostrixPath(HostrixFile::IgnoreIfnames)) << "eth0.3\n";
    fake::state().fdb.push_back({kHost, GetParam().ifname, 100, 1, GetParam().isLocal});
    if (GetParam().leased) lease(kHost, "10.77.0.101", 3600);
    EXPECT_EQ(cycle(), nullptr);
    EXPECT_EQ(lanHostNum, 0u);
}
INSTANTIATE_TEST_SUITE_P(Ports, SkippedPortTest,
                         ::testing::Values(SkipCase{"repeater", "wlan0-vxd", 0, true},
                                           SkipCase{"ignored_by_file", "eth0.3", 0, true},
                                           SkipCase{"bridge_itself", "eth0.2", 1, true},
                                           SkipCase{"no_address_at_all", "eth0.2", 0, false}),
                         CaseName());

TEST_F(DiscoveryTest, ClassifiesPortNames) {
    struct {
        const char *name;
        int lanPort, ssidIndex;
    } cases[] = {{"eth0.4", 3, 1}, {"eth0.4.mc", 1, 1}, {"wlan0-vap3", 0, 5}, {"wlan9-vap0", 0, 1}};
    for (auto &c : cases) {
        EXPECT_EQ(get_lan_port_by_ifname(c.name), c.lanPort) << c.name;
        EXPECT_EQ(get_ssid_index_by_ifname(c.name), c.ssidIndex) << c.name;
    }
}

TEST_F(DiscoveryTest, KnownStationMissingFromTheListsIsLeftAloneOnItsOwnInterface) {
    seen(kHost, "wlan1-vap2");
    fake::addStation("wlan1-vap2", kHost);
    fake::state().wirelessModes["wlan1-vap2"] = "ac";
    arp("10.77.0.101", kHost);
    hostEntry *entry = cycle();
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->lanHost.port, 9);
    EXPECT_EQ(entry->lanHost.connectionType, CONNECTION_WIRELESS);
    EXPECT_EQ(entry->lanHost.isWifi, 1);
    EXPECT_STREQ(entry->lanHost.wirelessMode, "ac");
    fake::state().stations.clear();
    entry->lanHost.ip = ipv4("10.77.0.9");
    cycle();
    EXPECT_EQ(ipOf(entry), "10.77.0.9");  // untouched, though ARP names another address
    EXPECT_EQ(entry->lanHost.isWifi, 1);
    fake::state().fdb[0].ifname = "wlan1";  // another SSID: a mesh device now
    cycle();
    EXPECT_EQ(entry->lanHost.isWifi, 0);
    EXPECT_EQ(entry->lanHost.port, 6);
    EXPECT_EQ(ipOf(entry), "10.77.0.101");
}

struct SourceCase {
    const char *name;
    std::vector<const char *> arp;  // entries of the host in table order; '~' marks incomplete
    const char *leaseIp;
    uint32_t leaseSecs;
    const char *expectedIp;
    uint32_t expectedSource;
};
class Ipv4SourceTest : public DiscoveryTest, public ::testing::WithParamInterface<SourceCase> {};

TEST_P(Ipv4SourceTest, PicksTheAddressByPrecedence) {
    const SourceCase &c = GetParam();
    seen(kHost);
    for (const char *ip : c.arp) ip[0] == '~' ? arp(ip + 1, kHost, "0x0") : arp(ip, kHost);
    if (c.leaseIp) lease(kHost, c.leaseIp, c.leaseSecs);
    hostEntry *entry = cycle();
    ASSERT_EQ(entry == nullptr, c.expectedIp == nullptr);
    if (!entry) return;
    EXPECT_EQ(ipOf(entry), c.expectedIp);
    EXPECT_EQ(entry->lanHost.ipSource, c.expectedSource);
}
INSTANTIATE_TEST_SUITE_P(
    Sources, Ipv4SourceTest,
    ::testing::Values(
        SourceCase{"complete_arp_over_lease",
                   {"~10.0.0.5", "10.0.0.10"},
                   "10.0.0.20",
                   3600,
                   "10.0.0.10",
                   1},
        SourceCase{"lease_names_one_of_two",
                   {"10.0.0.10", "10.0.0.20"},
                   "10.0.0.20",
                   3600,
                   "10.0.0.20",
                   1},
        SourceCase{"lease_61s_is_valid", {}, "10.0.0.20", 61, "10.0.0.20", 2},
        SourceCase{"incomplete_arp_and_60s_lease", {"~10.0.0.10"}, "10.0.0.20", 60, nullptr, 0}),
    CaseName());

TEST_F(DiscoveryTest, ReleasedLeaseDisconnectsAHostWithoutIpv6) {
    seen(kHost);
    lease(kHost, "10.0.0.20", 3600);
    hostEntry *entry = cycle();
    ASSERT_NE(entry, nullptr);
    entry->lanHost.firstConnect = 0;  // arrival already reported
    fake::state().leases[0].leaseTime = 0;
    cycle();
    EXPECT_EQ(entry->lanHost.ip, 0u);
    EXPECT_EQ(entry->lanHost.dhcpClientState, DHCP_CLIENT_RELEASED);
    EXPECT_EQ(entry->valid, 0);
    EXPECT_EQ(entry->lanHost.disConnect, 1);
    EXPECT_EQ(getHostrixByMac(kHost.data()), entry);  // kept in the table
    EXPECT_EQ(fake::state().commands.back(), "/bin/arp -d 10.0.0.20\n");
    arp("10.0.0.21", kHost);
    cycle();
    EXPECT_EQ(entry->valid, 1);
    EXPECT_EQ(entry->lanHost.firstConnect, 1);
    EXPECT_EQ(ipOf(entry), "10.0.0.21");
}

TEST_F(DiscoveryTest, FuzzyLeaseMatchForTwoCompleteArpEntries) {
    const fake::Mac host = fake::mac(0x00, 0x11, 0x22, 0x33, 0x44, 0x55);
    const fake::Mac macs[3] = {fake::mac(0x00, 0x11, 0x23, 0x33, 0x44, 0x55),  // third differs
                               fake::mac(0x02, 0x11, 0x22, 0x33, 0x44, 0x56), host};
    dhcp_lease leases[3] = {};
    for (int i = 0; i < 3; ++i) std::copy(macs[i].begin(), macs[i].end(), leases[i].mac);
    dhcp_lease *record = nullptr;
    EXPECT_EQ(find_dhcp_lease_fuzzy(leases, 3, host.data(), &record), 1);
    EXPECT_EQ(record, &leases[1]);
    leases[1].mac[5] = 0x55 + 15;  // one past the spread
    EXPECT_EQ(find_dhcp_lease_fuzzy(leases, 3, host.data(), &record), 1);
    EXPECT_EQ(record, &leases[2]);
}

TEST_F(DiscoveryTest, Ipv6OnlyHostArrivesWithoutAskingTheSniffer) {
    seen(kHost, "wlan1");
    fake::state().commandOutput["ip -6 neigh"] =
        "2001:db8::5 dev br0 lladdr " + macText(kHost) + " REACHABLE\n";
    uint32_t cached = ipv4("10.0.0.30");
    update_neighbor_host(kHost.data(), &cached, nullptr);
    hostEntry *entry = cycle();
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->lanHost.ip, 0u);
    EXPECT_EQ(entry->lanHost.firstGotIP, 1);
    EXPECT_EQ(entry->lanHost.ipv6[0], 0x20);
    cycle();  // the next cycle asks it; beside IPv6 this is no first address
    EXPECT_EQ(ipOf(entry), "10.0.0.30");
    EXPECT_EQ(entry->lanHost.ipSource, LANHOST_IP_SOURCE_SNIFFER);
    EXPECT_EQ(entry->lanHost.firstGotIP, 0);
    entry->lanHost.ip = 0;
    lease(kHost, "10.0.0.20", 3600);
    cycle();
    EXPECT_EQ(entry->lanHost.firstGotIP, 0);
    entry->lanHost.ip = 0;
    arp("10.0.0.10", kHost);
    cycle();
    EXPECT_EQ(entry->lanHost.firstGotIP, 1);  // ARP counts as first all the same
}

TEST_F(DiscoveryTest, BridgeBoundHostTakesItsAddressFromTheSnifferOnly) {
    seen(kHost, "eth0.5");
    fake::state().logicIds["eth0.5"] = 3;
    bridge_bind_logic_port_mask = 1u << 3;
    arp("10.0.0.10", kHost);  // neither source counts here
    lease(kHost, "10.0.0.20", 3600);
    uint32_t linkLocal = ipv4("169.254.7.9");
    update_neighbor_host(kHost.data(), &linkLocal, "cam");
    EXPECT_EQ(cycle(), nullptr);
    uint32_t cached = ipv4("10.0.0.40");
    update_neighbor_host(kHost.data(), &cached, "cam");
    hostEntry *entry = cycle();
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(ipOf(entry), "10.0.0.40");
    EXPECT_EQ(entry->lanHost.ipSource, LANHOST_IP_SOURCE_SNIFFER);
    EXPECT_EQ(entry->lanHost.dhcpClientState, DHCP_CLIENT_NONE);
    EXPECT_STREQ(entry->lanHost.devName, "cam");
}

TEST_F(DiscoveryTest, PortChangeIsReportedOnlyAfterTheArrival) {
    seen(kHost, "eth0.2");
    arp("10.0.0.10", kHost);
    hostEntry *entry = cycle();
    ASSERT_NE(entry, nullptr);
    entry->informChange = 0;
    fake::state().fdb[0].ifname = "eth0.3";
    cycle();
    EXPECT_EQ(entry->informChange, 0);  // the arrival report still carries it
    entry->lanHost.firstConnect = 0;
    fake::state().fdb[0].ifname = "eth0.4";
    cycle();
    EXPECT_EQ(entry->informChange, 1);
}

TEST_F(DiscoveryTest, ArrivalIsRestampedOnceAfterTimeSync) {
    seen(kHost);
    arp("10.0.0.10", kHost);
    hostEntry *entry = cycle();
    ASSERT_NE(entry, nullptr);
    fake::state().timeSynchronized = true;
    fake::state().wall = 1800000000;
    entry->lanHost.onLineTime = 100;
    cycle();
    char expected[kHostTextLen];
    formatHostTime(expected, 1800000005 - 100);
    EXPECT_STREQ(entry->lanHost.latestActiveTime, expected);
    cycle();  // a second restamp would move it 5 s on
    EXPECT_STREQ(entry->lanHost.latestActiveTime, expected);
}

TEST_F(DiscoveryTest, FullTableStillRefreshesKnownHosts) {
    setMaxLanHostNum(1);
    seen(kHost);
    seen(kOther);
    arp("10.0.0.10", kHost);
    arp("10.0.0.11", kOther);
    hostEntry *entry = cycle();
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(getHostrixByMac(kOther.data()), nullptr);
    entry->updateTime = 0;
    cycle();
    EXPECT_EQ(entry->updateTime, fake::state().monotonic.tv_sec);
}

// After a departure, only a bridge entry refreshed more than a second later brings the
// host back (the second covers the news of the departure coming after the last
// frame); the cycle comes 5 s after the departure.
TEST_F(DiscoveryTest, StaleBridgeEntryDoesNotReviveADepartedHost) {
    for (auto [ageAfterLeaving, revived] : {std::pair(400u, false), std::pair(399u, true)}) {
        initHostrixData();
        fake::state().fdb.clear();
        seen(kHost);
        arp("10.0.0.10", kHost);
        hostEntry *entry = cycle();
        ASSERT_NE(entry, nullptr);
        _disConnLanHost(entry, "test", __LINE__);
        fake::state().fdb[0].ageing = ageAfterLeaving;
        cycle();
        EXPECT_EQ(entry->valid, revived ? 1 : 0) << ageAfterLeaving;
        EXPECT_EQ(entry->lanHost.firstConnect, revived ? 1 : 0) << ageAfterLeaving;
    }
}

// Per-VLAN copies of one MAC: the freshest speaks, whatever the list order.
TEST_F(DiscoveryTest, FreshestVlanCopyGivesPortAndIdleTime) {
    for (bool freshFirst : {false, true}) {
        initHostrixData();
        fake::state().fdb.clear();
        if (freshFirst) seen(kHost, "eth0.2", 100);
        seen(kHost, "eth0.3", 9100);  // too old: would set idleSecs to 91
        seen(kHost, "eth0.4", 2000);
        if (!freshFirst) seen(kHost, "eth0.2", 100);
        arp("10.0.0.10", kHost);
        cycle();
        hostEntry *entry = cycle();
        ASSERT_NE(entry, nullptr);
        EXPECT_STREQ(entry->lanHost.ifName, "eth0.2") << freshFirst;
        EXPECT_EQ(entry->idleSecs, 1u) << freshFirst;
    }
}

}  // namespace
