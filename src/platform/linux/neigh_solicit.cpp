// IPv6 neighbour solicitation on the bridge: one ICMPv6 message from a raw socket to the
// target's solicited-node group, with the hop limit of 255 that receivers insist on and
// the interface MAC as source link-layer option, so the answer can come straight back.
#include "platform/linux/neigh_solicit.h"

#include <net/if.h>
#include <netinet/icmp6.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "core/unique_fd.h"
#include "platform/mib.h"
#include "platform/zvt.h"
#include "platform/os.h"

namespace {

constexpr int kNeighDiscoveryHops = 255;  // receivers drop ND messages that crossed a router
constexpr uint8_t kSolicitedNodePrefix[] = {0xff, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0xff};
constexpr size_t kSolicitedNodeTailBytes = 3;
constexpr uint8_t kSourceLinkOptionUnits = 1;  // option length in units of 8 bytes

static_assert(sizeof(kSolicitedNodePrefix) + kSolicitedNodeTailBytes == kIpv6AddressBytes);
static_assert(sizeof(nd_neighbor_solicit) + sizeof(nd_opt_hdr) + kNeighSolicitMacBytes ==
              kNeighSolicitBytes);

bool setIpv6Option(const UniqueFd &sock, int option, int value) {
    return setsockopt(sock.get(), IPPROTO_IPV6, option, &value, sizeof value) == 0;
}

// A raw ICMPv6 socket sending multicast out of interface INDEX, or an invalid one.
UniqueFd openSolicitSocket(unsigned index) {
    UniqueFd sock(socket(AF_INET6, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMPV6));
    if (!sock.valid()) return sock;
    if (!setIpv6Option(sock, IPV6_MULTICAST_HOPS, kNeighDiscoveryHops) ||
        !setIpv6Option(sock, IPV6_UNICAST_HOPS, kNeighDiscoveryHops) ||
        !setIpv6Option(sock, IPV6_MULTICAST_IF, static_cast<int>(index)))
        sock.reset();
    return sock;
}

}  // namespace

in6_addr solicitedNodeAddress(std::span<const uint8_t, kIpv6AddressBytes> target) {
    in6_addr group{};
    std::memcpy(group.s6_addr, kSolicitedNodePrefix, sizeof kSolicitedNodePrefix);
    std::memcpy(group.s6_addr + sizeof kSolicitedNodePrefix,
                target.data() + kIpv6AddressBytes - kSolicitedNodeTailBytes,
                kSolicitedNodeTailBytes);
    return group;
}

size_t buildNeighSolicit(std::span<const uint8_t, kIpv6AddressBytes> target,
                         std::span<const uint8_t, kNeighSolicitMacBytes> mac,
                         std::span<uint8_t> out) {
    if (out.size() < kNeighSolicitBytes) return 0;
    nd_neighbor_solicit solicit{};
    solicit.nd_ns_type = ND_NEIGHBOR_SOLICIT;
    solicit.nd_ns_code = 0;
    std::memcpy(&solicit.nd_ns_target, target.data(), kIpv6AddressBytes);
    nd_opt_hdr option{ND_OPT_SOURCE_LINKADDR, kSourceLinkOptionUnits};
    uint8_t *at = out.data();
    std::memcpy(at, &solicit, sizeof solicit);
    std::memcpy(at += sizeof solicit, &option, sizeof option);
    std::memcpy(at + sizeof option, mac.data(), kNeighSolicitMacBytes);
    return kNeighSolicitBytes;
}

int zvt_ipv6_send_neigh_solicit(const char *ifname, const void *addr) {
    if (!ifname || !addr) return -1;
    const unsigned index = if_nametoindex(os_kernel_ifname(ifname).c_str());
    uint8_t mac[kNeighSolicitMacBytes];
    if (index == 0 || getMacAddr(ifname, mac) < -1) return -1;
    const std::span<const uint8_t, kIpv6AddressBytes> target(static_cast<const uint8_t *>(addr),
                                                             kIpv6AddressBytes);
    uint8_t message[kNeighSolicitBytes];
    const size_t length = buildNeighSolicit(target, mac, message);
    UniqueFd sock = openSolicitSocket(index);
    if (!sock.valid()) return -1;
    sockaddr_in6 group{};
    group.sin6_family = AF_INET6;
    group.sin6_addr = solicitedNodeAddress(target);
    group.sin6_scope_id = index;
    ssize_t sent;
    do {
        sent = sendto(sock.get(), message, length, MSG_DONTWAIT,
                      reinterpret_cast<const sockaddr *>(&group), sizeof group);
    } while (sent < 0 && errno == EINTR);
    return sent == static_cast<ssize_t>(length) ? 0 : -1;
}
