#include <arpa/inet.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "discovery/sources.h"
#include "root_fixture.h"

namespace {

class SourcesTest : public RootedTest {
protected:
    void SetUp() override {
        RootedTest::SetUp();
        resetDiscoverySources();
        setMaxLanHostNum(kHostPoolSize);
    }
    static void writeIgnoreFile(const std::string &text) {
        std::ofstream(hostrixPath(HostrixFile::IgnoreIfnames)) << text;
    }
    static bool present(uint8_t k) { return getHostrixByMac(fake::mac(2, 0, 0, 0, 0, k).data()); }
};

TEST_F(SourcesTest, OnlyTheFirstLineIsIgnoredAndDotSuffixesFollowTheirPort) {
    writeIgnoreFile("eth0.3,wlan1 eth0.4\nwlan0\n");
    addHost(fake::mac(2, 0, 0, 0, 0, 1), "eth0.3");
    addHost(fake::mac(2, 0, 0, 0, 0, 2), "wlan1.2");
    addHost(fake::mac(2, 0, 0, 0, 0, 3), "wlan1-vap0");
    addHost(fake::mac(2, 0, 0, 0, 0, 4), "wlan0");
    EXPECT_EQ(read_ignore_ifnames(), 0);
    EXPECT_FALSE(present(1));
    EXPECT_FALSE(present(2));
    EXPECT_TRUE(present(3));
    EXPECT_TRUE(present(4));
    for (const char *name : {"eth0.3", "eth0.4", "wlan1", "wlan1.2"})
        EXPECT_EQ(is_ignore_ifname(name), 1) << name;
    for (const char *name : {"eth0.2", "eth0.30", "wlan1-vap0", "wlan0"})
        EXPECT_EQ(is_ignore_ifname(name), 0) << name;
}

TEST_F(SourcesTest, DeletedFileStopsIgnoringButRestoresNothing) {
    writeIgnoreFile("wlan1\n");
    addHost(fake::mac(2, 0, 0, 0, 0, 1), "wlan1");
    ASSERT_EQ(read_ignore_ifnames(), 0);
    std::filesystem::remove(hostrixPath(HostrixFile::IgnoreIfnames));
    EXPECT_EQ(read_ignore_ifnames(), -1);
    EXPECT_EQ(is_ignore_ifname("wlan1"), 0);
    EXPECT_TRUE(ignoreIfnameList().empty());
    EXPECT_FALSE(present(1));
}

TEST_F(SourcesTest, TokensOf64CharactersFilterButRemoveNothing) {
    const std::string name63 = "eth" + std::string(60, 'x');
    const std::string other63 = "eth" + std::string(60, 'y');
    writeIgnoreFile(other63 + "," + name63 + "z\n");
    addHost(fake::mac(2, 0, 0, 0, 0, 1), name63.c_str());
    addHost(fake::mac(2, 0, 0, 0, 0, 2), other63.c_str());
    ASSERT_EQ(read_ignore_ifnames(), 0);
    EXPECT_TRUE(present(1));  // a cut token would have named it
    EXPECT_FALSE(present(2));
    EXPECT_EQ(is_ignore_ifname((name63 + "z").c_str()), 1);
}

TEST_F(SourcesTest, EmptyFileIsLoggedByItsUnprefixedPath) {
    writeIgnoreFile("");
    dbg_level = DBG_FREE_LIST;
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(read_ignore_ifnames(), 0);
    std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("[Hostrix]:[read_ignore_ifnames] LANHOST_IGNORE_LANLIST: "
                       "/var/run/.hostrix_ignore_ifnames is empty\n"),
              std::string::npos);
}

struct NameCase {
    const char *name;
    const char *ifname;
    int ignored;
};
class FixedRuleTest : public SourcesTest, public ::testing::WithParamInterface<NameCase> {};

TEST_P(FixedRuleTest, NameRulesApplyWithoutAList) {
    EXPECT_EQ(is_ignore_ifname(GetParam().ifname), GetParam().ignored);
}

INSTANTIATE_TEST_SUITE_P(Sources, FixedRuleTest,
                         ::testing::Values(NameCase{"Bridge", "br0", 1},
                                           NameCase{"WanPort", "nas0_0", 1},
                                           NameCase{"Repeater0", "wlan0-vxd", 1},
                                           NameCase{"Repeater1Suffixed", "wlan1-vxd0", 1},
                                           NameCase{"LanPort", "eth0.2", 0},
                                           NameCase{"VirtualAp", "wlan0-vap3", 0}),
                         CaseName());

// ---- ARP ----

constexpr char kArpHeader[] =
    "IP address       HW type     Flags       HW address            Mask     Device\n";

TEST_F(SourcesTest, ArpListKeepsBridgeLinesInFileOrder) {
    fake::state().kernelFiles["/proc/net/arp"] = std::string(kArpHeader) +
        "192.168.1.9      0x1         0x2         02:00:00:00:00:09     *        eth0\n"
        "192.168.1.5      0x1         0x2         02:00:00:00:00:05     *        br0\n"
        "10.0.0.5         0x1         0x0         02:00:00:00:00:05     *        br1\n";
    arp_entry *head = nullptr;
    ASSERT_EQ(collect_arp_entries(&head), 2);
    const fake::Mac mac = fake::mac(2, 0, 0, 0, 0, 5);
    arp_entry *first = find_arp_entry(head, mac.data());
    ASSERT_EQ(first, head);
    EXPECT_EQ(first->ip, htonl(0xc0a80105u));
    EXPECT_STREQ(first->ifname, "br0");
    EXPECT_EQ(first->complete, 1u);
    arp_entry *second = find_arp_entry(first->next, mac.data());
    ASSERT_NE(second, nullptr);
    EXPECT_STREQ(second->ifname, "br1");
    EXPECT_EQ(second->complete, 0u);
    EXPECT_EQ(find_arp_entry(second->next, mac.data()), nullptr);
    free_arp_entries(&head);
    EXPECT_EQ(head, nullptr);
}

TEST_F(SourcesTest, MissingArpFileGivesNoList) {
    arp_entry *head = nullptr;
    EXPECT_EQ(collect_arp_entries(&head), 0);
    EXPECT_EQ(head, nullptr);
}

struct LineCase {
    const char *name;
    const char *line;
    bool accepted;
};
class ArpLineTest : public ::testing::TestWithParam<LineCase> {};

TEST_P(ArpLineTest, FieldsAreBounded) {
    ArpLine out{};
    EXPECT_EQ(parseArpLine(GetParam().line, out), GetParam().accepted);
}

INSTANTIATE_TEST_SUITE_P(
    Sources, ArpLineTest,
    ::testing::Values(
        LineCase{"Kernel", "192.168.100.200 0x1 0x2 02:00:00:00:00:01 * br0\n", true},
        LineCase{"IpOf16", "192.168.100.2001 0x1 0x2 02:00:00:00:00:01 * br0", false},
        LineCase{"MacOf18", "1.2.3.4 0x1 0x2 02:00:00:00:00:012 * br0", false},
        LineCase{"DeviceOf15", "1.2.3.4 0x1 0x2 02:00:00:00:00:01 * br0123456789012", true},
        LineCase{"DeviceOf16", "1.2.3.4 0x1 0x2 02:00:00:00:00:01 * br01234567890123", false},
        LineCase{"NoDevice", "1.2.3.4 0x1 0x2 02:00:00:00:00:01 *", false},
        LineCase{"FlagsWithoutPrefix", "1.2.3.4 0x1 2 02:00:00:00:00:01 * br0", false},
        LineCase{"FlagsNotHex", "1.2.3.4 0x1 0xg 02:00:00:00:00:01 * br0", false}),
    CaseName());

TEST(ArpLine, ViewEndsTheLine) {
    std::string_view line = "1.2.3.4 0x1 0x2 02:00:00:00:00:01 * br0";
    ArpLine out{};
    EXPECT_FALSE(parseArpLine(line.substr(0, line.size() - 4), out));
    ASSERT_TRUE(parseArpLine(line, out));
    EXPECT_EQ(out.flags, 2u);
    EXPECT_STREQ(out.device, "br0");
}

// ---- IPv6 neighbours ----

TEST_F(SourcesTest, NeighbourListKeepsOneUsefulAddressPerMac) {
    fake::state().commandOutput["ip -6 neigh"] =
        "fe80::1 dev br0 lladdr 02:00:00:00:00:01 STALE\n"
        "2001:db8::1 dev br0 lladdr 02:00:00:00:00:01 REACHABLE\n"
        "2001:db8::2 dev br0 lladdr 02:00:00:00:00:02 router STALE\n"
        "fe80::2 dev br0 lladdr 02:00:00:00:00:02 STALE\n"
        "2001:db8::3 dev br0 lladdr 02:00:00:00:00:03 STALE\n"
        "2001:db8::33 dev br0 lladdr 02:00:00:00:00:03 STALE\n"
        "2001:db8::4 dev br0  FAILED\n"
        "2001:db8::5 dev br0 lladdr 02:00:00:00:00:05 \x80STALE\n"
        "2001:db8::6 dev eth0 lladdr 02:00:00:00:00:06 STALE\n"
        "\n";
    ipv6_neigh *head = nullptr;
    EXPECT_EQ(collect_ipv6_neigh(&head), 3);
    auto addrOf = [&](uint8_t k) {
        ipv6_neigh *node = find_ipv6_neigh(head, fake::mac(2, 0, 0, 0, 0, k).data());
        char text[INET6_ADDRSTRLEN] = "none";
        if (node) inet_ntop(AF_INET6, node->addr, text, sizeof text);
        return std::string(text);
    };
    EXPECT_EQ(addrOf(1), "2001:db8::1");
    EXPECT_EQ(addrOf(2), "2001:db8::2");
    EXPECT_EQ(addrOf(3), "2001:db8::3");
    EXPECT_EQ(head->mac[5], 3);  // newest MAC first
    free_ipv6_neigh(&head);
}

TEST_F(SourcesTest, NeighbourUpdatesAreTraced) {
    const fake::Mac mac = fake::mac(2, 0, 0, 0, 0, 1);
    dbg_level = DBG_TRACE;
    ::testing::internal::CaptureStdout();
    ipv6_neigh *head = update_ipv6_neigh(mac.data(), "fe80::1", nullptr);
    head = update_ipv6_neigh(mac.data(), "2001:db8::1", head);
    std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("[Hostrix]:[update_ipv6_neigh "), std::string::npos);
    EXPECT_NE(out.find("]: update with ip fe80::1\n"), std::string::npos);
    EXPECT_NE(out.find("]: 2001:db8::1\n"), std::string::npos);
    EXPECT_NE(out.find("]: update with ip 2001:db8::1\n"), std::string::npos);
    EXPECT_FALSE(isLinkLocalIpv6(head->addr));
    free_ipv6_neigh(&head);
}

// ---- leases and the rest ----

dhcp_lease lease(uint8_t k) {
    dhcp_lease record{};
    record.mac[5] = k;
    record.ip = htonl(0xc0a80100u | k);
    return record;
}

TEST_F(SourcesTest, LeasesAreReusedFor4SecondsAndReadAt5) {
    fake::state().monotonic.tv_sec = 3;  // a young clock still reads at the first call
    fake::state().leases = {lease(1)};
    EXPECT_EQ(refresh_dhcp_leases(), 1);
    fake::state().leases = {lease(1), lease(2)};
    fake::advanceSeconds(4);
    EXPECT_EQ(refresh_dhcp_leases(), 1);
    fake::advanceSeconds(1);
    EXPECT_EQ(refresh_dhcp_leases(), 2);
    EXPECT_EQ(dhcpLeaseSnapshot()[1].mac[5], 2);
    fake::state().leases.clear();
    fake::advanceSeconds(5);
    EXPECT_EQ(refresh_dhcp_leases(), 0);
    EXPECT_EQ(dhcpLeaseSnapshot(), nullptr);
}

TEST_F(SourcesTest, StaleArpEntryIsDeletedByAddress) {
    EXPECT_EQ(del_arp_entry(htonl(0xc0a80105u)), 0);
    ASSERT_EQ(fake::state().commands.size(), 1u);
    EXPECT_EQ(fake::state().commands[0], "/bin/arp -d 192.168.1.5\n");
}

}  // namespace
