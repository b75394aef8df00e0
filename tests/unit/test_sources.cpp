// The per-cycle sources: ignore list, IPv6 neighbours and the lease snapshot. The ARP
// table and its index are the discovery cycle's tests'.
#include "discovery/sources.h"
#include "root_fixture.h"

namespace {

struct SourcesTest : RootedTest {
    static bool present(int k) { return getHostrixByMac(localMac(k).data()) != nullptr; }
};

// The first line only; a token takes its port's dot sub-interfaces along. A token of
// 64 characters filters but removes nothing; one of 63 does both.
TEST_F(SourcesTest, IgnoreListRemovesAndFiltersThePortsOfItsFirstLine) {
    const std::string name63 = "eth" + std::string(60, 'x'), other63 = "eth" + std::string(60, 'y');
    std::ofstream(hostrixPath(HostrixFile::IgnoreIfnames))
        << "eth0.3,wlan1\r " << other63 << "," << name63 << "z\nwlan0\n";
    const std::string ifnames[] = {"eth0.3", "wlan1.2", "wlan1-vap0", "wlan0", name63, other63};
    for (int k = 0; k < 6; ++k) addHost(localMac(k), ifnames[k].c_str());
    EXPECT_EQ(read_ignore_ifnames(), 0);
    for (int k = 0; k < 6; ++k) EXPECT_EQ(present(k), k >= 2 && k <= 4) << ifnames[k];
    for (const char *name : {"eth0.3", "wlan1", "wlan1.2", "br0", "wlan1-vxd0", "wlan0-vxd"})
        EXPECT_EQ(is_ignore_ifname(name), 1) << name;
    EXPECT_EQ(is_ignore_ifname((name63 + "z").c_str()), 1);
    for (const char *name : {"eth0.2", "eth0.30", "wlan1-vap0", "wlan0", "wlan2-vxd"})
        EXPECT_EQ(is_ignore_ifname(name), 0) << name;
    std::filesystem::remove(hostrixPath(HostrixFile::IgnoreIfnames));
    EXPECT_EQ(read_ignore_ifnames(), -1);
    EXPECT_EQ(is_ignore_ifname("wlan1"), 0);
    EXPECT_FALSE(present(1));  // nothing comes back by itself
}

// The snapshot serves the cycles of 5 s, but a database the server rewrote (a release)
// is read at the next cycle, however young the snapshot.
TEST_F(SourcesTest, LeasesAreReusedFor4SecondsUnlessTheServerRewroteThem) {
    fake::state().leases = {dhcp_lease{}};
    EXPECT_EQ(refresh_dhcp_leases(), 1);
    fake::state().leases.resize(2);
    fake::advanceSeconds(4);
    EXPECT_EQ(refresh_dhcp_leases(), 1);
    fake::state().leasesChanged = true;
    EXPECT_EQ(refresh_dhcp_leases(), 2);
}

// Per MAC the first address wins unless it is link-local (fe80::/10).
TEST_F(SourcesTest, NeighbourListKeepsOneUsefulAddressPerMac) {
    fake::state().commandOutput["ip -6 neigh"] =
        "febf::1 dev br0 lladdr 02:00:00:00:00:01 STALE\n"
        "2001:db8::1 dev br0 lladdr 02:00:00:00:00:01 REACHABLE\n"
        "2001:db8::2 dev br0 lladdr 02:00:00:00:00:02 router STALE\n"
        "fe80::2 dev br0 lladdr 02:00:00:00:00:02 STALE\n"
        "2001:db8::3 dev br0 lladdr 02:00:00:00:00:03 STALE\n"
        "2001:db8::33 dev br0 lladdr 02:00:00:00:00:03 STALE\n"
        "fec0::4 dev br0 lladdr 02:00:00:00:00:04 STALE\n"
        "2001:db8::44 dev br0 lladdr 02:00:00:00:00:04 STALE\n"
        "2001:db8::5 dev br0  FAILED\n"
        "2001:db8::5 dev br0 lladdr 02:00:00:00:00:05 \x80STALE\n"
        "2001:db8::6 dev br1 lladdr 02:00:00:00:00:06 STALE\n"
        "\n";
    ipv6_neigh *head = nullptr;
    EXPECT_EQ(collect_ipv6_neigh(&head), 4);
    const char *kept[] = {"2001:db8::1", "2001:db8::2", "2001:db8::3", "fec0::4"};
    for (int k = 1; k <= 4; ++k) {
        ipv6_neigh *node = find_ipv6_neigh(head, localMac(k).data());
        char text[INET6_ADDRSTRLEN] = "none";
        if (node) inet_ntop(AF_INET6, node->addr, text, sizeof text);
        EXPECT_STREQ(text, kept[k - 1]);
    }
    EXPECT_EQ(head->mac[5], 4);  // newest MAC first
    free_ipv6_neigh(&head);
}

}  // namespace
