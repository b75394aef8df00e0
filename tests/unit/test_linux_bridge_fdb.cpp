// The bridge forwarding database: the neighbour-dump and brforward decoders on crafted
// bytes, then both sources against a real bridge in a private network namespace.
#include <linux/neighbour.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "linux_test_support.h"
#include "netns_child.h"
#include "platform/linux/bridge_fdb.h"

namespace {

using Mac = std::array<uint8_t, 6>;
constexpr int kBridge = 5;
constexpr uint32_t kSeq = 7;
constexpr Mac kHostA{0x0a, 0x77, 0, 0, 0, 0x01};
constexpr Mac kHostB{0x0a, 0x77, 0, 0, 0, 0x02};

// Netlink messages laid out as the kernel sends them.
class Dump {
   public:
    Dump &neigh(int ifindex, uint16_t state, uint8_t flags, uint32_t seq = kSeq,
                uint8_t family = AF_BRIDGE) {
        begin(RTM_NEWNEIGH, seq);
        ndmsg body{};
        body.ndm_family = family;
        body.ndm_ifindex = ifindex;
        body.ndm_state = state;
        body.ndm_flags = flags;
        return put(&body, sizeof body);
    }
    Dump &attr(uint16_t type, const void *data, size_t size) {
        const rtattr header{static_cast<unsigned short>(RTA_LENGTH(size)), type};
        put(&header, sizeof header).put(data, size);
        return put(std::array<uint8_t, 3>{}.data(), RTA_ALIGN(size) - size);
    }
    // A bridge entry: MAC learnt on IFINDEX under the bridge MASTER.
    Dump &entry(int ifindex, const Mac &mac, uint16_t state = NUD_REACHABLE,
                uint32_t master = kBridge) {
        return neigh(ifindex, state, 0)
            .attr(NDA_LLADDR, mac.data(), mac.size())
            .attr(NDA_MASTER, &master, sizeof master);
    }
    Dump &done(int32_t error = 0, uint16_t type = NLMSG_DONE) {
        begin(type, kSeq);
        return put(&error, sizeof error);
    }
    std::vector<uint8_t> bytes;

   private:
    void begin(uint16_t type, uint32_t seq) {
        start_ = bytes.size();
        const nlmsghdr header{0, type, NLM_F_MULTI, seq, 0};
        put(&header, sizeof header);
    }
    Dump &put(const void *data, size_t size) {
        const auto *from = static_cast<const uint8_t *>(data);
        bytes.insert(bytes.end(), from, from + size);
        const auto length = static_cast<uint32_t>(bytes.size() - start_);
        std::memcpy(bytes.data() + start_, &length, sizeof length);  // nlmsg_len comes first
        return *this;
    }
    size_t start_ = 0;
};

FdbDumpStatus decode(const std::vector<uint8_t> &bytes, std::vector<FdbRecord> &records) {
    return decodeBridgeFdbMessages(bytes, kBridge, kSeq, records);
}

Mac macOf(const FdbRecord &record) {
    Mac mac;
    std::copy(record.mac, record.mac + mac.size(), mac.begin());
    return mac;
}

TEST(BridgeFdbDecode, EntriesOfTwoPortsWithVlanAndAge) {
    const nda_cacheinfo info{0, 0, 1234, 0};  // updated 12.34 s ago
    const uint16_t vlan = 10;
    Dump dump;
    dump.entry(6, kHostA).attr(NDA_CACHEINFO, &info, sizeof info).attr(NDA_VLAN, &vlan, 2);
    dump.entry(7, kHostB, NUD_PERMANENT).done();
    std::vector<FdbRecord> records;
    ASSERT_EQ(decode(dump.bytes, records), FdbDumpStatus::Done);
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(macOf(records[0]), kHostA);
    EXPECT_EQ(records[0].ifindex, 6);
    EXPECT_FALSE(records[0].isLocal);
    EXPECT_EQ(records[0].ageing, 1234u);
    EXPECT_EQ(records[0].vid, 10);
    EXPECT_EQ(macOf(records[1]), kHostB);
    EXPECT_EQ(records[1].ifindex, 7);
    EXPECT_TRUE(records[1].isLocal);
    EXPECT_EQ(records[1].vid, 0);
}

TEST(BridgeFdbDecode, KeepsOnlyHostsOfTheBridge) {
    const Mac group{0x33, 0x33, 0, 0, 0, 1};
    const uint32_t bridge = kBridge;
    Dump dump;
    dump.neigh(6, NUD_PERMANENT, NTF_SELF).attr(NDA_LLADDR, kHostA.data(), 6);  // port's own
    dump.neigh(6, NUD_PERMANENT, NTF_SELF)
        .attr(NDA_LLADDR, kHostA.data(), 6)
        .attr(NDA_MASTER, &bridge, 4);  // still a port's own entry, though it names the bridge
    dump.entry(8, kHostA, NUD_REACHABLE, 9);  // learnt by another bridge
    dump.entry(6, group).entry(6, Mac{});     // group and zero addresses
    dump.neigh(6, NUD_REACHABLE, 0, kSeq, AF_INET).attr(NDA_LLADDR, kHostA.data(), 6);
    dump.neigh(6, NUD_REACHABLE, 0, kSeq + 1).attr(NDA_LLADDR, kHostA.data(), 6);  // stale reply
    dump.neigh(kBridge, NUD_PERMANENT, 0).attr(NDA_LLADDR, kHostB.data(), 6);      // bridge's own
    dump.neigh(6, NUD_REACHABLE, 0).attr(NDA_MASTER, &bridge, 4);                  // no MAC at all
    std::vector<FdbRecord> records;
    EXPECT_EQ(decode(dump.bytes, records), FdbDumpStatus::More);  // no end of dump yet
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(macOf(records[0]), kHostB);
    EXPECT_EQ(records[0].ifindex, kBridge);
    EXPECT_TRUE(records[0].isLocal);
}

struct EndCase {
    const char *name;
    std::vector<uint8_t> bytes;
    FdbDumpStatus status;
    size_t records;
    friend void PrintTo(const EndCase &c, std::ostream *os) { *os << c.name; }
};

std::vector<uint8_t> withLength(std::vector<uint8_t> bytes, size_t at, uint32_t length) {
    std::memcpy(bytes.data() + at, &length, sizeof length);
    return bytes;
}

class BridgeFdbEnd : public ::testing::TestWithParam<EndCase> {};

TEST_P(BridgeFdbEnd, StopsCleanly) {
    const EndCase &c = GetParam();
    const std::vector<uint8_t> exact(c.bytes);  // heap block of the exact size: no slack to read
    std::vector<FdbRecord> records;
    EXPECT_EQ(decode(exact, records), c.status);
    EXPECT_EQ(records.size(), c.records);
}

const std::vector<uint8_t> kOne = Dump().entry(6, kHostA).bytes;
const uint8_t kBadMacLength = 200;

INSTANTIATE_TEST_SUITE_P(
    Cases, BridgeFdbEnd,
    ::testing::Values(
        EndCase{"ErrorReport", Dump().entry(6, kHostA).done(-EBUSY, NLMSG_ERROR).bytes,
                FdbDumpStatus::Failed, 1},
        EndCase{"DumpEndedWithError", Dump().done(-EINTR).bytes, FdbDumpStatus::Failed, 0},
        EndCase{"MessageLengthZero", withLength(kOne, 0, 0), FdbDumpStatus::Failed, 0},
        EndCase{"MessageLongerThanBuffer", std::vector<uint8_t>(kOne.begin(), kOne.end() - 1),
                FdbDumpStatus::Failed, 0},
        EndCase{"AttributeOverrunsMessage",
                [] {
                    Dump dump;
                    dump.entry(6, kHostA).bytes[sizeof(nlmsghdr) + sizeof(ndmsg)] = kBadMacLength;
                    return dump.entry(7, kHostB).done().bytes;  // the next entry still counts
                }(),
                FdbDumpStatus::Done, 1},
        EndCase{"AttributeLengthBelowHeader", withLength(kOne, sizeof(nlmsghdr) + sizeof(ndmsg), 2),
                FdbDumpStatus::More, 0}),
    [](const auto &testParam) { return std::string(testParam.param.name); });

TEST(BridgeFdbDecode, BrforwardRecords) {
    // clang-format off
    const uint8_t bytes[] = {
        0x0a, 0x77, 0, 0, 0, 0x01,  // MAC
        0x02, 0,                    // port 2 (low byte), not local
        0x10, 0x27, 0, 0,           // 10000 hundredths
        0x01, 0, 0, 0,              // port high byte 1: port 0x102
        0x0a, 0x77, 0, 0, 0, 0x02, 0x01, 1, 0, 0, 0, 0, 0, 0, 0, 0,  // local on port 1
        0x01, 0x00, 0x5e, 0, 0, 1, 0x01, 1, 0, 0, 0, 0, 0, 0, 0, 0,  // group address
        0x0a, 0x77, 0, 0, 0, 0x03, 0x01, 0,  // half a record
    };
    // clang-format on
    std::vector<FdbRecord> records;
    decodeBrforward(bytes, records);
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(macOf(records[0]), kHostA);
    EXPECT_EQ(records[0].portNo, 0x102u);
    EXPECT_FALSE(records[0].isLocal);
    EXPECT_EQ(records[0].ageing, 10000u);
    EXPECT_EQ(macOf(records[1]), kHostB);
    EXPECT_EQ(records[1].portNo, 1u);
    EXPECT_TRUE(records[1].isLocal);
}

// The list's node with MAC, or nullptr.
const fdb *findMac(const fdb *head, const Mac &mac) {
    for (; head; head = head->next)
        if (std::equal(mac.begin(), mac.end(), head->mac)) return head;
    return nullptr;
}

bool hasGroupAddress(const fdb *head) {
    for (; head; head = head->next)
        if (head->mac[0] & 1) return true;
    return false;
}

// Runs in the child, in its own network namespace.
int checkRealBridge() {
    fdb *head = nullptr;
    NETNS_CHECK(collect_bridge_fdb(&head) <= 0 && head == nullptr);  // no br0 yet
    if (!netnsMakeBridge() ||
        std::system("bridge fdb add 0a:77:00:00:00:01 dev d0 master static && "
                    "bridge fdb add 0a:77:00:00:00:02 dev d0 master dynamic") != 0)
        return kNetnsNoSetup;
    NETNS_CHECK(collect_bridge_fdb(&head) >= 4);
    const fdb *staticHost = findMac(head, kHostA), *dynamicHost = findMac(head, kHostB);
    const fdb *port = findMac(head, {0x0a, 0x77, 0, 0, 0, 0xd0});
    const fdb *bridge = findMac(head, {0x0a, 0x77, 0, 0, 0, 0xb0});
    NETNS_CHECK(staticHost && dynamicHost && port && bridge && !hasGroupAddress(head));
    NETNS_CHECK(std::strcmp(staticHost->ifname, "d0") == 0 && !staticHost->is_local);
    NETNS_CHECK(std::strcmp(staticHost->brname, "br0") == 0 && staticHost->port_no == 1);
    NETNS_CHECK(!dynamicHost->is_local && dynamicHost->ageing_timer_value < 1000);
    NETNS_CHECK(std::strcmp(port->ifname, "d0") == 0 && port->is_local);
    NETNS_CHECK(std::strcmp(bridge->ifname, "br0") == 0 && bridge->is_local);
    free_bridge_fdb(&head);
    NETNS_CHECK(collectBridgeFdbFromSysfs(&head) >= 3);  // the bridge's own entry is not there
    staticHost = findMac(head, kHostA);
    NETNS_CHECK(staticHost && std::strcmp(staticHost->ifname, "d0") == 0 &&
                staticHost->port_no == 1 && !staticHost->is_local);
    free_bridge_fdb(&head);
    return kNetnsPassed;
}

TEST(BridgeFdbKernel, RealBridgeThroughNetlinkAndSysfs) {
    const int status = runInPrivateNetns(checkRealBridge);
    if (const char *why = netnsSkipReason(status)) GTEST_SKIP() << why;
    EXPECT_EQ(status, kNetnsPassed) << "the child's message above names the failed check";
}

}  // namespace
