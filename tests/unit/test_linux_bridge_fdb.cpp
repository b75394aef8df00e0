// The bridge forwarding database: the neighbour-dump decoder on crafted bytes. The
// netlink source against a real bridge is the lab's to check; the sysfs fallback is
// not checked here.
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cerrno>

#include "linux_test_support.h"
#include "netlink_bytes.h"
#include "platform/linux/bridge_fdb.h"

namespace {

using Mac = std::array<uint8_t, 6>;
using namespace nlbytes;
constexpr int kBridge = 5;
constexpr uint32_t kSeq = 7;
constexpr Mac kHostA{0x0a, 0x77, 0, 0, 0, 0x01};
constexpr Mac kHostB{0x0a, 0x77, 0, 0, 0, 0x02};

Bytes neigh(int ifindex, uint16_t state, uint8_t flags, const Bytes &attributes,
            uint8_t family = AF_BRIDGE, uint32_t seq = kSeq) {
    const ndmsg body{family, 0, 0, ifindex, state, flags, 0};
    return message(RTM_NEWNEIGH, seq, join({raw(body), attributes}), NLM_F_MULTI);
}

Bytes underMaster(const Mac &mac, uint32_t master = kBridge) {
    return join({attrOf(NDA_LLADDR, mac), attrOf(NDA_MASTER, master)});
}

// MAC learnt on port IFINDEX of the bridge.
Bytes entry(int ifindex, const Mac &mac, const Bytes &more = {}) {
    return neigh(ifindex, NUD_REACHABLE, 0, join({underMaster(mac), more}));
}

auto fieldsOf(const FdbRecord &r) {
    return std::tuple(std::to_array(r.mac), r.ifindex, r.isLocal, r.ageing, +r.vid, r.portNo);
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
    EXPECT_EQ(
        decodeBridgeFdbMessages(message(NLMSG_ERROR, kSeq, raw(-EBUSY)), kBridge, kSeq, records),
        FdbDumpStatus::Failed);
    EXPECT_EQ(decodeBridgeFdbMessages(dump, kBridge, kSeq, records),
              FdbDumpStatus::More);  // no end of dump yet
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(fieldsOf(records[0]), std::tuple(kHostA, 6, false, 1234u, 10, 0u));
    EXPECT_EQ(fieldsOf(records[1]), std::tuple(kHostB, kBridge, true, 0u, 0, 0u));
}

}  // namespace
