// IPv6 neighbour solicitation: the refusals, and the frame that leaves a real bridge in
// a private network namespace, checked byte by byte.
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/socket.h>

#include "linux_test_support.h"
#include "netns_child.h"
#include "platform/linux/neigh_solicit.h"
#include "platform/zvt.h"

namespace {

using Address = std::array<uint8_t, kIpv6AddressBytes>;
constexpr Address kTarget{0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x12, 0x34, 0x56};
constexpr std::array<uint8_t, 6> kBridgeMac{0x0a, 0x77, 0, 0, 0, 0xb0};

// clang-format off
constexpr uint8_t kMessage[kNeighSolicitBytes] = {
    135, 0,                  // type neighbour solicitation, code 0
    0, 0,                    // checksum, filled by the kernel
    0, 0, 0, 0,              // reserved
    0x20, 0x01, 0x0d, 0xb8,  // target 2001:db8::12:3456
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0x12, 0x34, 0x56,
    1, 1,                    // option: source link-layer address, 8 bytes
    0x0a, 0x77, 0, 0, 0, 0xb0,  // the interface MAC
};
// clang-format on

TEST(NeighSolicit, RefusesWhatCannotBeSent) {
    EXPECT_EQ(zvt_ipv6_send_neigh_solicit(nullptr, kTarget.data()), -1);
    EXPECT_EQ(zvt_ipv6_send_neigh_solicit("hx-no-such0", kTarget.data()), -1);
    EXPECT_EQ(zvt_ipv6_send_neigh_solicit("lo", nullptr), -1);
}

// Offsets in the captured frame: Ethernet header, then IPv6, then ICMPv6.
constexpr size_t kIp6 = 14, kIcmp6 = kIp6 + 40;

// Ours: IPv6, ICMPv6, a solicitation for kTarget, whole.
bool isOurSolicitation(const uint8_t *frame, ssize_t length) {
    return length >= static_cast<ssize_t>(kIcmp6 + kNeighSolicitBytes) && frame[12] == 0x86 &&
           frame[13] == 0xdd && frame[kIp6 + 6] == IPPROTO_ICMPV6 && frame[kIcmp6] == 135 &&
           std::memcmp(frame + kIcmp6 + 8, kTarget.data(), kTarget.size()) == 0;
}

int checkFrame(const uint8_t *frame) {
    // The solicited-node group takes the last 24 bits of the target.
    const uint8_t dstMac[] = {0x33, 0x33, 0xff, 0x12, 0x34, 0x56};
    const uint8_t group[] = {0xff, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0xff, 0x12, 0x34, 0x56};
    NETNS_CHECK(std::memcmp(frame, dstMac, sizeof dstMac) == 0);
    NETNS_CHECK(std::memcmp(frame + 6, kBridgeMac.data(), kBridgeMac.size()) == 0);
    NETNS_CHECK(frame[kIp6 + 7] == 255);  // hop limit
    NETNS_CHECK(std::memcmp(frame + kIp6 + 24, group, sizeof group) == 0);
    NETNS_CHECK(std::memcmp(frame + kIcmp6 + 4, kMessage + 4, sizeof kMessage - 4) == 0);
    return kNetnsPassed;
}

// Outgoing frames reach only packet sockets of every protocol, so the capture takes all.
UniqueFd captureOn(const char *ifname) {
    UniqueFd sock(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ETH_P_ALL)));
    sockaddr_ll link{};
    link.sll_family = AF_PACKET;
    link.sll_protocol = htons(ETH_P_ALL);
    link.sll_ifindex = static_cast<int>(if_nametoindex(ifname));
    const timeval wait{0, 100'000};
    if (bind(sock.get(), reinterpret_cast<sockaddr *>(&link), sizeof link) != 0 ||
        setsockopt(sock.get(), SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait) != 0)
        sock.reset();
    return sock;
}

// Runs in the child. Sends until the bridge has its link-local source address.
int checkRealSolicitation() {
    if (std::system("sysctl -qw net.ipv6.conf.all.accept_dad=0 "
                    "net.ipv6.conf.default.accept_dad=0") != 0 ||
        !netnsMakeBridge())
        return kNetnsNoSetup;
    const UniqueFd capture = captureOn("br0");
    NETNS_CHECK(capture.valid());
    uint8_t frame[2048];
    for (int attempt = 0; attempt < 50; ++attempt) {
        const bool sent = zvt_ipv6_send_neigh_solicit("br0", kTarget.data()) == 0;
        ssize_t got;  // when not sent, one receive times out: a short wait
        while ((got = recv(capture.get(), frame, sizeof frame, 0)) > 0 && sent)
            if (isOurSolicitation(frame, got)) return checkFrame(frame);
    }
    std::fprintf(stderr, "no solicitation for 2001:db8::12:3456 left br0\n");
    return kNetnsCheckFailed;
}

TEST(NeighSolicitKernel, FrameOnARealBridge) {
    expectPassesInPrivateNetns(checkRealSolicitation);
}

}  // namespace
