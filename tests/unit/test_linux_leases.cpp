// The dnsmasq lease file as lease records: remaining time, names, skipped lines, the
// record cap, and the file read through the configured path.
#include <arpa/inet.h>

#include <iomanip>
#include <memory>

#include "linux_test_support.h"
#include "platform/linux/dhcp_leases.h"

namespace {

constexpr time_t kNow = 1'700'000'000;
constexpr uint32_t kIp = 0x0a01a8c0;  // 192.168.1.10 in network order

struct LeaseCase {
    const char *name;
    std::string line;
    bool parsed;
    uint32_t leaseTime = 0;  // host order
    const char *hostname = "";
};

class DnsmasqLeaseLine : public ::testing::TestWithParam<LeaseCase> {};

TEST_P(DnsmasqLeaseLine, RecordOrSkip) {
    const LeaseCase &c = GetParam();
    dhcp_lease lease{};
    std::memset(lease.hostname, 'x', sizeof lease.hostname);  // a record is written whole
    ASSERT_EQ(parseDnsmasqLeaseLine(c.line, kNow, lease), c.parsed);
    if (!c.parsed) return;
    const uint8_t mac[6] = {0x02, 0, 0, 0, 0, 0x01};
    EXPECT_EQ(std::memcmp(lease.mac, mac, sizeof mac), 0);
    EXPECT_EQ(lease.ip, kIp);
    EXPECT_EQ(ntohl(lease.leaseTime), c.leaseTime);
    EXPECT_STREQ(lease.hostname, c.hostname);
}

const std::string kRest = " 02:00:00:00:00:01 192.168.1.10 ";
const std::string kName71(71, 'n');
INSTANTIATE_TEST_SUITE_P(
    Lines, DnsmasqLeaseLine,
    ::testing::Values(
        LeaseCase{"Remaining", "1700000100" + kRest + "phone 01:02:00:00:00:00:01", true, 100,
                  "phone"},
        LeaseCase{"ExpiredIsZero", "1699999000" + kRest + "phone *", true, 0, "phone"},
        LeaseCase{"EndingNowIsZero", "1700000000" + kRest + "phone *", true, 0, "phone"},
        LeaseCase{"InfiniteIsValid", "0" + kRest + "tv *", true, kInfiniteLeaseSeconds, "tv"},
        LeaseCase{"StarIsNoName", "1700000100" + kRest + "* *", true, 100},
        LeaseCase{"TabsAndCarriageReturn", "1700000100\t02:00:00:00:00:01\t192.168.1.10\tpc\r",
                  true, 100, "pc"},
        LeaseCase{"LongestName", "1700000100" + kRest + kName71 + " *", true, 100, kName71.c_str()},
        LeaseCase{"OverlongNameDropped", "1700000100" + kRest + kName71 + "n *", true, 100},
        LeaseCase{"Duid", "duid 00:01:00:01:2c:5e:aa:bb:02:00:00:00:00:01", false},
        LeaseCase{"Ipv6Lease", "1700000100 1234567 fd00::10 phone 00:01:00:01:2c", false},
        LeaseCase{"NoName", "1700000100" + kRest, false},
        LeaseCase{"ShortMac", "1700000100 02:00:00:00:00 192.168.1.10 a *", false},
        LeaseCase{"ZeroMac", "1700000100 00:00:00:00:00:00 192.168.1.10 a *", false},
        LeaseCase{"ShortIp", "1700000100 02:00:00:00:00:01 192.168.1 a *", false},
        LeaseCase{"ZeroIp", "1700000100 02:00:00:00:00:01 0.0.0.0 a *", false},
        LeaseCase{"NegativeExpiry", "-5" + kRest + "a *", false},
        LeaseCase{"ExpiryOverflow", "99999999999999999999999" + kRest + "a *", false},
        LeaseCase{"Empty", "", false}),
    [](const auto &param) { return std::string(param.param.name); });

TEST(DnsmasqLeases, FileOrderSkippingOthersUpToTheRoom) {
    const std::string text =
        "1700000100 02:00:00:00:00:01 192.168.1.10 a *\n"
        "garbage\n\n"
        "0 02:00:00:00:00:02 192.168.1.11 b *\n"
        "duid 00:01:00:01\n"
        "1700000100 02:00:00:00:00:03 192.168.1.12 c *";  // no final newline
    dhcp_lease leases[4] = {};
    ASSERT_EQ(parseDnsmasqLeases(text, kNow, leases), 3u);
    EXPECT_STREQ(leases[0].hostname, "a");
    EXPECT_STREQ(leases[1].hostname, "b");
    EXPECT_STREQ(leases[2].hostname, "c");
    EXPECT_EQ(parseDnsmasqLeases(text, kNow, std::span(leases, 2)), 2u);
    EXPECT_EQ(parseDnsmasqLeases(text, kNow, {}), 0u);
}

class LeaseFile : public HostrixRootTest {
   protected:
    void SetUp() override {
        HostrixRootTest::SetUp();
        writeConfig("lease_file = " + leasePath() + "\n");
    }
    std::string leasePath() const { return root_.file("leases"); }
    // Calls the store with a sentinel in the out-value, so "left null" is checked.
    int read(dhcp_lease *&array) {
        array = reinterpret_cast<dhcp_lease *>(this);
        unsigned long aux = 0;
        return getDhcpClientLeasesDB(&array, &aux);
    }
};

TEST_F(LeaseFile, RecordsWithTimeLeftCappedAtTheLimit) {
    std::ofstream file(leasePath());
    for (size_t i = 0; i < kMaxDhcpLeases + 5; ++i)
        file << time(nullptr) + 3600 << " 02:00:00:00:" << std::hex << std::setfill('0')
             << std::setw(2) << i / 256 << ':' << std::setw(2) << i % 256 << std::dec
             << " 10.0.0.1 h" << i << " *\n";
    file.close();
    dhcp_lease *array = nullptr;
    ASSERT_EQ(read(array), static_cast<int>(kMaxDhcpLeases));
    std::unique_ptr<dhcp_lease, decltype(&std::free)> owned(array, &std::free);
    EXPECT_STREQ(array[kMaxDhcpLeases - 1].hostname, "h1023");
    EXPECT_GT(ntohl(array[0].leaseTime), 3500u);
    EXPECT_LE(ntohl(array[0].leaseTime), 3600u);
}

TEST_F(LeaseFile, MissingOrEmptyGivesNone) {
    dhcp_lease *array = nullptr;
    EXPECT_EQ(read(array), 0);
    EXPECT_EQ(array, nullptr);
    std::ofstream(leasePath()) << "duid 00:01\n";
    EXPECT_EQ(read(array), 0);
    EXPECT_EQ(array, nullptr);
    EXPECT_EQ(getDhcpClientLeasesDB(nullptr, nullptr), 0);
}

}  // namespace
