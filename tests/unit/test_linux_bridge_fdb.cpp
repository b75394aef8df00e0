// The bridge forwarding database: the neighbour-dump and brforward decoders on crafted
// bytes, then the sysfs source against a real bridge in a private network namespace.
#include <linux/neighbour.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cerrno>

#include "linux_test_support.h"
#include "netlink_bytes.h"
#include "netns_child.h"
#include "platform/linux/bridge_fdb.h"

namespace {

using Mac = std::array<uint8_t, 6>;
using nlbytes::Bytes;
using nlbytes::join;
using nlbytes::attrOf;
using nlbytes::raw;
constexpr int kBridge = 5;
constexpr uint32_t kSeq = 7;
constexpr Mac kHostA{0x0a, 0x77, 0, 0, 0, 0x01};
constexpr Mac kHostB{0x0a, 0x77, 0, 0, 0, 0x02};

Bytes message(uint16_t type, const Bytes &payload, uint32_t seq = kSeq) {
    return nlbytes::message(type, seq, payload, NLM_F_MULTI);
}

Bytes neigh(int ifindex, uint16_t state, uint8_t flags, const Bytes &attributes,
            uint8_t family = AF_BRIDGE, uint32_t seq = kSeq) {
    const ndmsg body{family, 0, 0, ifindex, state, flags, 0};
    return message(RTM_NEWNEIGH, join({raw(body), attributes}), seq);
}

Bytes underMaster(const Mac &mac, uint32_t master = kBridge) {
    return join({attrOf(NDA_LLADDR, mac), attrOf(NDA_MASTER, master)});
}

// MAC learnt on port IFINDEX of the bridge.
Bytes entry(int ifindex, const Mac &mac, const Bytes &more = {}) {
    return neigh(ifindex, NUD_REACHABLE, 0, join({underMaster(mac), more}));
}

auto fieldsOf(const FdbRecord &r) {
    Mac mac;
    std::copy(r.mac, r.mac + mac.size(), mac.begin());
    return std::tuple(mac, r.ifindex, r.isLocal, r.ageing, +r.vid, r.portNo);
}

// Each entry after the first two breaks one rule; a rule left out lets its entry through.
TEST(BridgeFdbDecode, KeepsOnlyHostsOfTheBridgeWithVlanAndAge) {
    const nda_cacheinfo info{0, 0, 1234, 0};  // updated 12.34 s ago
    const Bytes dump = join({
        entry(6, kHostA, join({attrOf(NDA_CACHEINFO, info), attrOf(NDA_VLAN, uint16_t{10})})),
        neigh(kBridge, NUD_PERMANENT, 0, attrOf(NDA_LLADDR, kHostB)),  // the bridge's own, local
        neigh(6, NUD_PERMANENT, NTF_SELF, underMaster(kHostA)),  // a port's own, naming the bridge
        neigh(8, NUD_REACHABLE, 0, underMaster(kHostA, 9)),      // learnt by another bridge
        entry(6, {0x33, 0x33, 0, 0, 0, 1}), entry(6, Mac{}),     // group and zero addresses
        neigh(6, NUD_REACHABLE, 0, underMaster(kHostA), AF_INET),              // another family
        neigh(6, NUD_REACHABLE, 0, underMaster(kHostA), AF_BRIDGE, kSeq + 1),  // an older dump
    });
    std::vector<FdbRecord> records;
    EXPECT_EQ(decodeBridgeFdbMessages(message(NLMSG_ERROR, raw(-EBUSY)), kBridge, kSeq, records),
              FdbDumpStatus::Failed);
    EXPECT_EQ(decodeBridgeFdbMessages(dump, kBridge, kSeq, records),
              FdbDumpStatus::More);  // no end of dump yet
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(fieldsOf(records[0]), std::tuple(kHostA, 6, false, 1234u, 10, 0u));
    EXPECT_EQ(fieldsOf(records[1]), std::tuple(kHostB, kBridge, true, 0u, 0, 0u));
}

// Records of 16 bytes: MAC, port number low byte, local flag, age, port high byte, padding.
TEST(BridgeFdbDecode, BrforwardRecords) {
    // clang-format off
    uint8_t bytes[] = {
        0x0a, 0x77, 0, 0, 0, 0x01, 0x02, 0, 0, 0, 0, 0, 0x01, 0, 0, 0,  // port 0x102, age below
        0x0a, 0x77, 0, 0, 0, 0x02, 0x01, 1, 0, 0, 0, 0, 0, 0, 0, 0,     // local on port 1
        0x01, 0x00, 0x5e, 0, 0, 1, 0x01, 1, 0, 0, 0, 0, 0, 0, 0, 0,     // group address
        0x0a, 0x77, 0, 0, 0, 0x03, 0x01, 0,                             // half a record
    };
    // clang-format on
    const uint32_t age = 10000;  // 100 s, in the kernel's own byte order
    std::memcpy(bytes + 8, &age, sizeof age);
    std::vector<FdbRecord> records;
    decodeBrforward(bytes, records);
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(fieldsOf(records[0]), std::tuple(kHostA, 0, false, 10000u, 0, 0x102u));
    EXPECT_EQ(fieldsOf(records[1]), std::tuple(kHostB, 0, true, 0u, 0, 1u));
}

// The list's node with MAC on IFNAME of br0, or nullptr; a group address anywhere fails.
const fdb *findOn(const fdb *head, const Mac &mac, const char *ifname, bool local) {
    const fdb *found = nullptr;
    for (; head; head = head->next) {
        if (head->mac[0] & 1) return nullptr;
        if (std::equal(mac.begin(), mac.end(), head->mac)) found = head;
    }
    const bool on = found && std::strcmp(found->ifname, ifname) == 0 && found->is_local == local &&
                    std::strcmp(found->brname, "br0") == 0;
    return on ? found : nullptr;
}

// Runs in the child, in its own network namespace. The netlink source is what the
// daemon reads in the lab; the sysfs one, its fallback, is read only here.
int checkSysfs() {
    fdb *head = nullptr;
    NETNS_CHECK(collectBridgeFdbFromSysfs(&head) <= 0 && head == nullptr);  // no br0 yet
    if (!netnsMakeBridge() ||
        std::system("bridge fdb add 0a:77:00:00:00:01 dev d0 master static && "
                    "bridge fdb add 0a:77:00:00:00:02 dev d0 master dynamic") != 0)
        return kNetnsNoSetup;
    NETNS_CHECK(collectBridgeFdbFromSysfs(&head) >= 3);  // the bridge's own entry is not there
    const fdb *staticHost = findOn(head, kHostA, "d0", false);
    const fdb *dynamicHost = findOn(head, kHostB, "d0", false);
    NETNS_CHECK(staticHost && staticHost->port_no == 1 && !staticHost->port_hi);
    NETNS_CHECK(dynamicHost && dynamicHost->ageing_timer_value < 1000);
    NETNS_CHECK(findOn(head, {0x0a, 0x77, 0, 0, 0, 0xd0}, "d0", true));
    free_bridge_fdb(&head);
    return kNetnsPassed;
}

TEST(BridgeFdbKernel, RealBridgeThroughSysfs) {
    expectPassesInPrivateNetns(checkSysfs);
}

}  // namespace
