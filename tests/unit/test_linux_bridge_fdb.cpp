// The bridge forwarding database: the neighbour-dump and brforward decoders on crafted
// bytes. The netlink source against a real bridge is the lab's to check.
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cerrno>

#include "linux_test_support.h"
#include "netlink_bytes.h"
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

}  // namespace
