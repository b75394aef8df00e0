// The dnsmasq lease file as lease records: remaining time, names, skipped lines, the
// record cap, and the file read through the configured path.
#include <arpa/inet.h>

#include <memory>

#include "linux_test_support.h"
#include "platform/linux/dhcp_leases.h"

namespace {

constexpr time_t kNow = 1'700'000'000;
const std::string kRest = " 02:00:00:00:00:01 192.168.1.10 ";
const std::string kName71(71, 'n');

TEST(DnsmasqLeaseLine, LeasesGiveTheWholeRecordOtherLinesAreSkipped) {
    const std::tuple<std::string, uint32_t, std::string> cases[] = {
        {"1700000100" + kRest + "phone 01:02:00:00:00:00:01", 100, "phone"},
        {"1699999000" + kRest + "phone *", 0, "phone"},                    // expired
        {"0" + kRest + "tv *", kInfiniteLeaseSeconds, "tv"},               // no end
        {"1700000100" + kRest + "* *", 100, ""},                           // no name
        {"1700000100\t02:00:00:00:00:01\t192.168.1.10\tpc\r", 100, "pc"},  // tabs, CR
        {"1700000100" + kRest + kName71 + " *", 100, kName71},             // longest name
        {"1700000100" + kRest + kName71 + "n *", 100, ""},                 // overlong name dropped
    };
    for (const auto &[line, leaseTime, hostname] : cases) {
        dhcp_lease lease{};
        std::memset(lease.hostname, 'x', sizeof lease.hostname);  // a record is written whole
        ASSERT_TRUE(parseDnsmasqLeaseLine(line, kNow, lease)) << line;
        EXPECT_EQ(std::tuple(+lease.mac[5], lease.ip, ntohl(lease.leaseTime),
                             std::string(lease.hostname)),
                  std::tuple(1, 0x0a01a8c0u, leaseTime, hostname))  // 192.168.1.10, network order
            << line;
    }
    const std::string bad[] = {
        "duid 00:01:00:01:2c:5e:aa:bb:02:00:00:00:00:01",
        "1700000100" + kRest,                             // no name
        "1700000100 00:00:00:00:00:00 192.168.1.10 a *",  // zero MAC
        "1700000100 02:00:00:00:00:01 192.168.1 a *",     // short address
        "1700000100 02:00:00:00:00:01 0.0.0.0 a *",       // zero address
        "99999999999999999999999" + kRest + "a *",        // expiry overflows
    };
    dhcp_lease lease{};
    for (const std::string &line : bad)
        EXPECT_FALSE(parseDnsmasqLeaseLine(line, kNow, lease)) << line;
}

TEST(DnsmasqLeases, FileOrderSkippingOtherLines) {
    const std::string text = "1700000100" + kRest + "a *\ngarbage\n\n0" + kRest + "b *\n1" + kRest +
                             "c *";  // no final newline
    dhcp_lease leases[4] = {};
    ASSERT_EQ(parseDnsmasqLeases(text, kNow, leases), 3u);
    EXPECT_EQ(std::tuple(std::string(leases[0].hostname), std::string(leases[1].hostname),
                         std::string(leases[2].hostname)),
              std::tuple("a", "b", "c"));
}

class LeaseFile : public HostrixRootTest {
   protected:
    void SetUp() override {
        HostrixRootTest::SetUp();
        writeConfig("lease_file = " + root_.file("leases") + "\n");
    }
    // Calls the store with a sentinel in the out-value, so "left null" is checked.
    int read(dhcp_lease *&array) {
        array = reinterpret_cast<dhcp_lease *>(this);
        return getDhcpClientLeasesDB(&array, nullptr);
    }
};

// Time left is taken against the wall clock; the array is the caller's to free.
TEST_F(LeaseFile, RecordsWithTimeLeftCappedAtTheLimit) {
    std::ofstream file(root_.file("leases"));
    for (size_t i = 0; i < kMaxDhcpLeases + 5; ++i)
        file << time(nullptr) + 3600 << " 02:00:00:00:00:01 10.0.0.1 h" << i << " *\n";
    file.close();
    dhcp_lease *array = nullptr;
    ASSERT_EQ(read(array), static_cast<int>(kMaxDhcpLeases));
    std::unique_ptr<dhcp_lease, decltype(&std::free)> owned(array, &std::free);
    EXPECT_STREQ(array[kMaxDhcpLeases - 1].hostname, "h1023");
    EXPECT_GT(ntohl(array[0].leaseTime), 3500u);
    EXPECT_LE(ntohl(array[0].leaseTime), 3600u);
}

TEST_F(LeaseFile, MissingOrLeaselessFileGivesNone) {
    dhcp_lease *array = nullptr;
    EXPECT_EQ(read(array), 0);
    EXPECT_EQ(array, nullptr);
    std::ofstream(root_.file("leases")) << "duid 00:01\n";
    EXPECT_EQ(read(array), 0);
    EXPECT_EQ(array, nullptr);
    EXPECT_EQ(getDhcpClientLeasesDB(nullptr, nullptr), 0);
}

}  // namespace
