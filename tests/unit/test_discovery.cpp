// The discovery cycle with its address resolution, on sources programmed in the fake.
#include "discovery/discovery.h"
#include "discovery/ip_resolution.h"
#include "hosts/liveness.h"
#include "root_fixture.h"

namespace {

const fake::Mac kHost = fake::mac(0x0a, 0x77, 0, 0, 0, 1);

std::string macText(const fake::Mac &mac) {
    char text[18];
    std::snprintf(text, sizeof text, "0a:77:00:00:00:%02x", mac[5]);  // the hosts' MACs
    return text;
}

void neigh(const fake::Mac &mac, const std::string &ip) {
    fake::state().commandOutput["ip -6 neigh"] =
        ip + " dev br0 lladdr " + macText(mac) + " STALE\n";
}

struct DiscoveryTest : RootedTest {
    void SetUp() override {
        RootedTest::SetUp();
        fake::state().kernelFiles["/proc/net/arp"] = "header\n";  // no entries
    }
    static fake::Mac hostMac(uint8_t k) { return fake::mac(0x0a, 0x77, 0, 0, 0, k); }
    static void seen(const fake::Mac &mac, const char *ifname = "eth0.2", uint32_t ageing = 100) {
        fake::state().fdb.push_back({mac, ifname, ageing, 1, 0});
    }
    // A leading '~' marks an incomplete entry.
    static void arp(const char *ip, const fake::Mac &mac = kHost) {
        bool complete = ip[0] != '~';
        fake::state().kernelFiles["/proc/net/arp"] += std::string(ip + !complete) + " 0x1 " +
                                                      (complete ? "0x2 " : "0x0 ") + macText(mac) +
                                                      " * br0\n";
    }
    static void lease(const fake::Mac &mac, const char *ip, uint32_t secs, const char *name = "") {
        dhcp_lease record{};
        std::copy(mac.begin(), mac.end(), record.mac);
        record.ip = inet_addr(ip);
        record.leaseTime = htonl(secs);
        std::snprintf(record.hostname, sizeof record.hostname, "%s", name);
        fake::state().leases.push_back(record);
    }
    static void sniffed(const fake::Mac &mac, const char *ip, const char *name = nullptr) {
        uint32_t address = inet_addr(ip);
        update_neighbor_host(mac.data(), &address, name);
    }
    // One cycle 5 s on, so that the lease snapshot is read again.
    static hostEntry *cycle(const fake::Mac &mac = kHost) {
        fake::advanceSeconds(5);
        __zvt_hostrix_update_from_arp();
        return getHostrixByMac(mac.data());
    }
    static std::string ipOf(const hostEntry *entry) { return inet_ntoa({entry->lanHost.ip}); }
};

TEST_F(DiscoveryTest, NewDhcpHostArrivesWithItsLeaseOnceRecentlySeen) {
    seen(kHost, "eth0.3", 9100);
    lease(kHost, "10.77.0.101", 3600, "hx-h1");
    fake::state().phyIds["eth0.3"] = 2;
    EXPECT_EQ(cycle(), nullptr);  // 91 s is past the 90 s limit
    fake::state().fdb[0].ageing = 9000;
    hostEntry *entry = cycle();
    ASSERT_NE(entry, nullptr);
    const lanHostInfo_t &host = entry->lanHost;
    EXPECT_EQ(std::tuple(ipOf(entry), host.ipSource, std::string(host.devName),
                         std::string(host.ifName), std::string(host.model)),
              std::tuple("10.77.0.101", LANHOST_IP_SOURCE_DHCP, "hx-h1", "eth0.3", "OTHER"));
    EXPECT_EQ(std::tuple(host.port, host.connectionType, host.phy_port, entry->phyPortId),
              std::tuple(2, CONNECTION_WIRED, 2, 2));
    EXPECT_EQ(std::tuple(host.internetAccess, host.otherAccess, host.firstConnect, host.firstGotIP,
                         entry->informChange, entry->idleSecs),
              std::tuple(2, 1, 1, 1, 1, 90u));
    EXPECT_NE(host.latestActiveTime[0], '\0');
    // Both counter sets registered, and every cycle sends its registrations.
    EXPECT_EQ(
        std::tuple(entry->startOnLine, fake::state().hpcUpdates.size(), fake::state().hpcCommits),
        std::tuple(fake::state().monotonic.tv_sec, 2u, 2));
    const uint32_t confirmed = entry->updateTime;
    fake::state().fdb[0].ageing = 9100;  // too old again: only the idle time follows
    cycle();
    EXPECT_EQ(std::pair(entry->idleSecs, entry->updateTime), std::pair(91u, confirmed));
}

TEST_F(DiscoveryTest, SkippedEntriesNeverCreateAHost) {
    std::ofstream(hostrixPath(HostrixFile::IgnoreIfnames)) << "eth0.3\n";
    // The last has no address at all: its entry goes back.
    const std::tuple<const char *, uint8_t, bool> entries[] = {
        {"wlan1-vxd", 0, true}, {"eth0.3", 0, true}, {"eth0.3.4", 0, true},
        {"nas0_0", 0, true},    {"eth0.2", 1, true}, {"eth0.2", 0, false}};
    for (auto [ifname, isLocal, leased] : entries) {
        SCOPED_TRACE(ifname);
        fake::state().fdb = {{kHost, ifname, 100, 1, isLocal}};
        fake::state().leases.clear();
        if (leased) lease(kHost, "10.77.0.101", 3600);
        EXPECT_EQ(cycle(), nullptr);
        EXPECT_EQ(lanHostNum, 0u);
    }
}

// Ports are classified once a cycle; every host still gets its own port's answers,
// and a port's answers do not outlive the cycle.
TEST_F(DiscoveryTest, EveryHostGetsItsOwnPortsClassification) {
    std::ofstream(hostrixPath(HostrixFile::IgnoreIfnames)) << "wlan0\n";
    fake::state().logicIds = {{"eth0.5", 3}, {"eth0.4", 4}};
    bridge_bind_logic_port_mask = 1u << 3;
    fake::addStation("wlan1-vap2", hostMac(4));
    const uint8_t wired = CONNECTION_WIRED, wireless = CONNECTION_WIRELESS;
    // Interface, then the host's port (-1: no host), connection type and isWifi.
    const std::tuple<const char *, int, uint8_t, uint8_t> hosts[] = {
        {"eth0.2", 1, wired, 0},        {"eth0.3", 2, wired, 0},
        {"eth0.4.mc", 1, wired, 0},     {"wlan0-vap3", 5, wireless, 0},
        {"wlan1-vap2", 9, wireless, 1}, {"wlan9-vap0", 1, wireless, 0},
        {"eth0.3", 2, wired, 0},        {"wlan0", -1, 0, 0},
        {"eth0.5", -1, 0, 0},  // bridge-bound: ARP does not count
        {"eth0.4", 3, wired, 0}};
    for (uint8_t k = 0; k < std::size(hosts); ++k) {
        seen(hostMac(k), std::get<0>(hosts[k]));
        arp(("10.0.0." + std::to_string(k + 1)).c_str(), hostMac(k));
    }
    cycle();
    for (uint8_t k = 0; k < std::size(hosts); ++k) {
        const hostEntry *entry = getHostrixByMac(hostMac(k).data());
        const lanHostInfo_t &host = entry ? entry->lanHost : lanHostInfo_t{};
        EXPECT_EQ(std::tuple(std::get<0>(hosts[k]), entry ? host.port : -1, host.connectionType,
                             host.isWifi),
                  hosts[k]);
    }
    std::ofstream(hostrixPath(HostrixFile::IgnoreIfnames)) << "eth0.3\n";
    cycle();
    EXPECT_EQ(getHostrixByMac(hostMac(1).data()), nullptr);
    EXPECT_NE(getHostrixByMac(hostMac(0).data()), nullptr);
}

// A lease whose MAC is within 14 of the host's in its first and last octets, and equal
// in the others, counts only for a host with two complete ARP entries.
TEST_F(DiscoveryTest, PicksTheIpv4AddressByPrecedence) {
    const fake::Mac fuzzy = fake::mac(0x0a + 14, 0x77, 0, 0, 0, 1 + 14);
    const fake::Mac tooFar = fake::mac(0x0a, 0x77, 0, 0, 0, 1 + 15);
    const fake::Mac otherOctet = fake::mac(0x0a, 0x77, 0, 0, 1, 1);
    // The host's ARP entries in table order, the lease's MAC and time, then the host's
    // address (nullptr: no host), ipSource and dhcpLeaseFound.
    const std::tuple<std::vector<const char *>, fake::Mac, uint32_t, const char *, uint32_t,
                     uint8_t>
        cases[] = {
            {{"~10.0.0.5", "10.0.0.10"}, kHost, 3600, "10.0.0.10", 1, 1},  // ARP over a lease
            {{"10.0.0.10", "10.0.0.20"}, kHost, 3600, "10.0.0.20", 1, 1},  // the lease picks
            {{"10.0.0.10", "10.0.0.11", "~10.0.0.20"}, kHost, 3600, "10.0.0.10", 1, 1},
            {{"10.0.0.10", "10.0.0.20"}, fuzzy, 3600, "10.0.0.20", 1, 1},
            {{"~10.0.0.20", "10.0.0.10"}, fuzzy, 3600, "10.0.0.10", 1, 0},
            {{"10.0.0.10", "10.0.0.20"}, otherOctet, 3600, "10.0.0.10", 1, 0},
            {{"10.0.0.10", "10.0.0.20"}, tooFar, 3600, "10.0.0.10", 1, 0},
            {{}, kHost, 61, "10.0.0.20", 2, 1},
            {{"~10.0.0.10"}, kHost, 60, nullptr, 0, 0},
        };
    for (size_t k = 0; k < std::size(cases); ++k) {
        const auto &[arps, leaseMac, leaseSecs, ip, source, leaseFound] = cases[k];
        SCOPED_TRACE(k);
        SetUp();
        seen(kHost);
        for (const char *entry : arps) arp(entry);
        lease(leaseMac, "10.0.0.20", leaseSecs, "named");
        hostEntry *entry = cycle();
        ASSERT_EQ(entry == nullptr, ip == nullptr);
        if (!entry) continue;
        EXPECT_EQ(std::tuple(ipOf(entry), entry->lanHost.ipSource, entry->lanHost.dhcpLeaseFound,
                             std::string(entry->lanHost.devName)),
                  std::tuple(ip, source, leaseFound, leaseFound ? "named" : ""));
    }
}

// FOUND, released, a valid lease again (still RELEASED), gone (NONE), and FOUND anew.
TEST_F(DiscoveryTest, DhcpClientStateReturnsToFoundOnlyThroughNone) {
    seen(kHost);
    sniffed(kHost, "10.0.0.20");
    // The lease's time (-1: no lease record), then the host's DHCP state, address and validity.
    const std::tuple<int, uint32_t, const char *, int> steps[] = {
        {3600, DHCP_CLIENT_FOUND, "10.0.0.20", 1},
        {0, DHCP_CLIENT_RELEASED, "0.0.0.0", 0},
        {3600, DHCP_CLIENT_RELEASED, "10.0.0.20", 1},
        {-1, DHCP_CLIENT_NONE, "10.0.0.20", 1},
        {3600, DHCP_CLIENT_FOUND, "10.0.0.20", 1}};
    hostEntry *entry = nullptr;
    for (const auto &[leaseSecs, state, ip, valid] : steps) {
        fake::state().leases.clear();
        if (leaseSecs >= 0) lease(kHost, "10.0.0.20", leaseSecs);
        if (entry) entry->informChange = 0;
        entry = cycle();
        ASSERT_NE(entry, nullptr);
        EXPECT_EQ(std::tuple(entry->lanHost.dhcpClientState, ipOf(entry), entry->valid,
                             entry->lanHost.disConnect, entry->informChange),
                  std::tuple(state, ip, valid, 1 - valid, state != DHCP_CLIENT_NONE))
            << leaseSecs;
        if (valid) continue;
        EXPECT_EQ(fake::state().commands.back(), "/bin/arp -d 10.0.0.20\n");
        EXPECT_EQ(getSnifferNeighborHost(kHost.data(), nullptr, nullptr, 0), 0);
        EXPECT_EQ(entry->lanHost.ipSource, LANHOST_IP_SOURCE_DHCP);
    }
}

TEST_F(DiscoveryTest, FirstAddressIsFlaggedByItsSource) {
    seen(kHost, "wlan1");
    neigh(kHost, "2001:db8::5");
    sniffed(kHost, "10.0.0.30", "cam");
    hostEntry *entry = cycle();
    ASSERT_NE(entry, nullptr);  // IPv6 first: the sniffer waits for the next cycle
    EXPECT_EQ(std::tuple(entry->lanHost.ip, entry->lanHost.firstGotIP, entry->lanHost.ipv6[0]),
              std::tuple(0u, 1, 0x20));
    // Beside an IPv6 address only ARP counts as a first address.
    const std::pair<void (*)(), int> sources[] = {
        {[] {}, 0}, {[] { lease(kHost, "10.0.0.20", 3600); }, 0}, {[] { arp("10.0.0.10"); }, 1}};
    for (auto [add, firstGotIP] : sources) {
        entry->lanHost.ip = 0;
        add();
        cycle();
        EXPECT_EQ(std::tuple(entry->lanHost.ip != 0, entry->lanHost.firstGotIP),
                  std::tuple(true, firstGotIP));
    }
    EXPECT_STREQ(entry->lanHost.devName, "cam");
}

// Before its arrival is reported a host's port, IPv6 address and lease name change
// silently; after it each change is reported.
TEST_F(DiscoveryTest, ChangesAreReportedOnlyAfterTheArrival) {
    seen(kHost, "eth0.3");
    arp("10.0.0.10");
    lease(kHost, "10.0.0.10", 3600);
    hostEntry *entry = cycle();
    ASSERT_NE(entry, nullptr);
    const std::function<void(int)> changes[] = {
        [](int k) { fake::state().fdb[0].ifname = k ? "eth0.4" : "eth0.5"; },
        [](int k) { neigh(kHost, k ? "2001:db8::5" : "2001:db8::6"); },
        [](int k) { std::strcpy(fake::state().leases[0].hostname, k ? "tv" : "tv2"); }};
    for (const auto &change : changes) {
        for (int firstConnect : {1, 0}) {
            entry->informChange = 0;
            entry->lanHost.firstConnect = firstConnect;
            change(firstConnect);
            cycle();
            EXPECT_EQ(entry->informChange, 1 - firstConnect) << &change - changes;
        }
    }
}

TEST_F(DiscoveryTest, ArrivalIsRestampedOnceAfterTimeSync) {
    seen(kHost);
    arp("10.0.0.10");
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

// A full table still refreshes its hosts. Once recycling has freed nothing, the cycle
// does not recycle again: a host that leaves later in it keeps its entry until its
// departure has been seen, and the next cycle recycles it for a newcomer.
TEST_F(DiscoveryTest, FullTableRecyclesAtMostOncePerCycleUntilItFreesSomething) {
    setMaxLanHostNum(2);
    seen(hostMac(1));
    arp("10.0.0.1");
    seen(hostMac(2));
    lease(hostMac(2), "10.0.0.2", 3600);
    hostEntry *leaving = cycle(hostMac(2));
    ASSERT_NE(leaving, nullptr);
    leaving->lanHost.firstConnect = 0;
    fake::state().leases[0].leaseTime = 0;  // released: it goes offline in the next cycle
    fake::state().fdb.insert(fake::state().fdb.begin(), {hostMac(3), "eth0.2", 100, 1, 0});
    seen(hostMac(4));
    for (uint8_t k : {3, 4}) arp(("10.0.0." + std::to_string(k)).c_str(), hostMac(k));
    hostEntry *kept = cycle();
    EXPECT_EQ(std::tuple(kept->updateTime, leaving->valid, leaving->lanHost.disConnect,
                         getHostrixByMac(hostMac(2).data()), getHostrixByMac(hostMac(4).data())),
              std::tuple(fake::state().monotonic.tv_sec, 0, 1, leaving, nullptr));
    EXPECT_NE(cycle(hostMac(3)), nullptr);
}

// Of per-VLAN copies of a MAC the freshest speaks, whatever the list order; after a
// departure only an entry refreshed more than a second later brings the host back.
TEST_F(DiscoveryTest, OnlyTheFreshestBridgeEntrySpeaks) {
    for (bool freshFirst : {false, true}) {
        SetUp();
        if (freshFirst) seen(kHost, "eth0.2", 100);
        seen(kHost, "eth0.3", 9100);  // too old: would set idleSecs to 91
        seen(kHost, "eth0.4", 2000);
        if (!freshFirst) seen(kHost, "eth0.2", 100);
        arp("10.0.0.10");
        hostEntry *entry = cycle();
        ASSERT_NE(entry, nullptr);
        EXPECT_EQ(std::tuple(std::string(entry->lanHost.ifName), entry->idleSecs),
                  std::tuple("eth0.2", 1u));
        _disConnLanHost(entry, "test", __LINE__);
        fake::state().fdb = {{kHost, "eth0.2", freshFirst ? 399u : 400u, 1, 0}};  // 5 s on
        cycle();
        EXPECT_EQ(std::tuple(entry->valid, entry->lanHost.firstConnect),
                  std::tuple(freshFirst, freshFirst));
    }
}

}  // namespace
