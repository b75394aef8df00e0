// The dnsmasq lease file as lease records: both kinds of lease end, names, skipped
// lines, remaining time that wall-clock steps cannot move, the record cap, and the
// file read through the configured path.
#include <arpa/inet.h>

#include <memory>

#include "linux_test_support.h"
#include "platform/linux/dhcp_leases.h"

namespace {

constexpr time_t kNow = 1'700'000'000;
constexpr int64_t kMono = 1000;
constexpr time_t kDay = 86'400;
constexpr uint32_t kNoEnd = kInfiniteLeaseSeconds;
const std::string kRest = " 02:00:00:00:00:01 192.168.1.10 ";
const std::string kName71(71, 'n');
using Left = std::vector<uint32_t>;

// Reads TEXT as the file at wall time WALL and monotonic second MONO: seconds left.
Left read(LeaseAnchors &anchors, const std::string &text, time_t wall, int64_t mono,
          bool rewritten = false) {
    LeaseLine lines[8];
    std::span<LeaseLine> leases(lines, parseDnsmasqLeases(text, lines));
    anchors.update(leases, wall, mono, rewritten);
    Left left;
    for (const LeaseLine &lease : leases) left.push_back(ntohl(lease.record.leaseTime));
    return left;
}

TEST(DnsmasqLeaseLine, BothEndFormsGiveTheWholeRecordOtherLinesAreSkipped) {
    const std::tuple<std::string, uint32_t, std::string> cases[] = {
        {"1700000100" + kRest + "phone 01:02:00:00:00:00:01", 100, "phone"},  // expiry
        {"1699999000" + kRest + "phone *", 0, "phone"},                       // expired
        {"0" + kRest + "tv *", kNoEnd, "tv"},
        {"3600" + kRest + "tv *", 3600, "tv"},            // length
        {"946684799" + kRest + "a *", 946'684'799, "a"},  // the longest length
        {"946684800" + kRest + "a *", 0, "a"},            // the earliest expiry, long past
        {"1700000100" + kRest + "* *", 100, ""},          // no name
        {"1700000100\t02:00:00:00:00:01\t192.168.1.10\tpc\r", 100, "pc"},  // tabs, CR
        {"1700000100" + kRest + kName71 + " *", 100, kName71},             // longest name
        {"1700000100" + kRest + kName71 + "n *", 100, ""},                 // overlong name dropped
    };
    for (const auto &[line, leaseTime, hostname] : cases) {
        LeaseLine lease;
        std::memset(lease.record.hostname, 'x', sizeof lease.record.hostname);  // written whole
        ASSERT_TRUE(parseDnsmasqLeaseLine(line, lease)) << line;
        LeaseAnchors fresh;
        EXPECT_EQ(std::tuple(+lease.record.mac[5], lease.record.ip,
                             std::string(lease.record.hostname), read(fresh, line, kNow, kMono)),
                  std::tuple(1, htonl(0xc0a8010a), hostname, Left{leaseTime}))  // 192.168.1.10
            << line;
    }
    const std::string bad[] = {
        "duid 00:01:00:01:2c:5e:aa:bb:02:00:00:00:00:01",
        "3600 1234567 fd00::10 phone *",                  // an IPv6 lease
        "1700000100" + kRest,                             // no name
        "1700000100 00:00:00:00:00:00 192.168.1.10 a *",  // zero MAC
        "1700000100 02:00:00:00:00:01 192.168.1 a *",     // short address
        "1700000100 2:0:0:0:0:1x 192.168.1.10 a *",       // junk after the MAC
        "1700000100 02:00:00:00:00:01 0.0.0.0 a *",       // zero address
        "99999999999999999999999" + kRest + "a *",        // end overflows
    };
    LeaseLine lease;
    for (const std::string &line : bad) EXPECT_FALSE(parseDnsmasqLeaseLine(line, lease)) << line;
}

// An expiry, a length, a lease without end.
const std::string kFile = "1700003600" + kRest + "a *\n7200" + kRest + "b *\n0" + kRest + "c *\n";

TEST(LeaseAnchors, WallClockStepsMoveNoLeaseTheMonotonicClockCountsDown) {
    LeaseAnchors anchors;
    const Left fresh = {3600, 7200, kNoEnd};
    ASSERT_EQ(read(anchors, kFile, kNow, kMono), fresh);
    EXPECT_EQ(read(anchors, kFile, kNow - kDay, kMono), fresh);
    EXPECT_EQ(read(anchors, kFile, kNow + 2 * kDay, kMono), fresh);
    EXPECT_EQ(read(anchors, kFile, kNow + 2 * kDay, kMono + 100), (Left{3500, 7100, kNoEnd}));
    EXPECT_EQ(read(anchors, kFile, kNow - kDay, kMono + 4000), (Left{0, 3200, kNoEnd}));
    EXPECT_EQ(read(anchors, kFile, kNow, kMono - 50), fresh);  // a failed clock read adds nothing
}

// A renewal gives an expiry line new text, so it is anchored again against the wall
// clock of that read; a length line's text stays, and the file's rewrite renews it.
TEST(LeaseAnchors, ChangedLinesAndRewrittenLengthsAreAnchoredAgainLeftLinesDropped) {
    LeaseAnchors anchors;
    read(anchors, kFile, kNow, kMono);
    const std::string renewed =
        "1700090000" + kRest + "a *\n7200" + kRest + "b *\n0" + kRest + "c *\n";
    EXPECT_EQ(read(anchors, renewed, kNow + 1000, kMono + 1000), (Left{89'000, 6200, kNoEnd}));
    EXPECT_EQ(read(anchors, renewed, kNow, kMono + 2000, true), (Left{88'000, 7200, kNoEnd}));
    EXPECT_EQ(read(anchors, "7200" + kRest + "b *\n", kNow, kMono + 2000), Left{7200});
    EXPECT_EQ(anchors.size(), 1u);
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
    file << "600 02:00:00:00:00:02 10.0.0.2 length *\ngarbage\n";
    for (size_t i = 0; i < kMaxDhcpLeases + 5; ++i)
        file << time(nullptr) + 3600 << " 02:00:00:00:00:01 10.0.0.1 h" << i << " *\n";
    file.close();
    dhcp_lease *array = nullptr;
    ASSERT_EQ(read(array), static_cast<int>(kMaxDhcpLeases));
    std::unique_ptr<dhcp_lease, decltype(&std::free)> owned(array, &std::free);
    EXPECT_EQ(std::pair(std::string(array[kMaxDhcpLeases - 1].hostname), ntohl(array[0].leaseTime)),
              std::pair(std::string("h1022"), 600u));
    EXPECT_NEAR(ntohl(array[1].leaseTime), 3550, 50);
}

// Changed means: since the last read, the file came, went or was rewritten. A missing
// or leaseless file gives no array.
TEST_F(LeaseFile, ChangeIsTheFileSinceTheLastRead) {
    // Whether the file changed, what a read then gives and leaves, and the change after it.
    auto changedReadChanged = [this] {
        const int before = isDhcpClientLeasesDBChanged();
        dhcp_lease *array = nullptr;
        const int count = read(array);
        return std::tuple(before, count, array, isDhcpClientLeasesDBChanged());
    };
    EXPECT_EQ(changedReadChanged(), std::tuple(1, 0, nullptr, 0));  // never read
    std::ofstream(root_.file("leases")) << "duid 00:01\n";
    EXPECT_EQ(changedReadChanged(), std::tuple(1, 0, nullptr, 0));
    std::ofstream(root_.file("leases"), std::ios::app) << "# more\n";
    EXPECT_EQ(changedReadChanged(), std::tuple(1, 0, nullptr, 0));
    std::remove(root_.file("leases").c_str());
    EXPECT_EQ(changedReadChanged(), std::tuple(1, 0, nullptr, 0));
}

}  // namespace
