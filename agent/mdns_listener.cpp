#include "mdns_listener.h"

#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace {

constexpr uint16_t kMdnsPort = 5353;

bool shareable(int fd) {
    int on = 1;
    return setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0 &&
           setsockopt(fd, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on) == 0;
}

UniqueFd openV4(unsigned ifindex) {
    UniqueFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(kMdnsPort);
    ip_mreqn group{};
    group.imr_multiaddr.s_addr = htonl(0xe00000fb);  // 224.0.0.251
    group.imr_ifindex = static_cast<int>(ifindex);
    if (!fd.valid() || !shareable(fd.get()) ||
        bind(fd.get(), reinterpret_cast<sockaddr *>(&addr), sizeof addr) < 0 ||
        setsockopt(fd.get(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &group, sizeof group) < 0)
        return {};
    return fd;
}

UniqueFd openV6(unsigned ifindex) {
    UniqueFd fd(socket(AF_INET6, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    int on = 1;
    sockaddr_in6 addr{};
    addr.sin6_family = AF_INET6;
    addr.sin6_port = htons(kMdnsPort);
    ipv6_mreq group{};
    constexpr std::array<uint8_t, 16> kGroup = {0xff, 0x02, 0, 0, 0, 0, 0, 0,
                                                0,    0,    0, 0, 0, 0, 0, 0xfb};
    std::memcpy(&group.ipv6mr_multiaddr, kGroup.data(), kGroup.size());
    group.ipv6mr_interface = ifindex;
    if (!fd.valid() || !shareable(fd.get()) ||
        setsockopt(fd.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on) < 0 ||
        bind(fd.get(), reinterpret_cast<sockaddr *>(&addr), sizeof addr) < 0 ||
        setsockopt(fd.get(), IPPROTO_IPV6, IPV6_ADD_MEMBERSHIP, &group, sizeof group) < 0)
        return {};
    return fd;
}

}  // namespace

MdnsSockets openMdnsSockets(const std::string &ifname, std::string &why) {
    unsigned ifindex = if_nametoindex(ifname.c_str());
    if (ifindex == 0) {
        why = "no interface " + ifname;
        return {};
    }
    MdnsSockets sockets{openV4(ifindex), openV6(ifindex)};
    if (!sockets.v4.valid() || !sockets.v6.valid())
        why = std::string("cannot listen on ") + (sockets.v4.valid() ? "IPv6" : "IPv4") +
              " mDNS on " + ifname + ": " + std::strerror(errno);
    return sockets;
}

bool receiveMdns(int fd, std::vector<MdnsAddress> &out) {
    static std::array<uint8_t, kMaxMdnsPacket + 1> buffer;
    ssize_t n = recv(fd, buffer.data(), buffer.size(), MSG_TRUNC);
    if (n <= 0 || static_cast<size_t>(n) > kMaxMdnsPacket) return false;
    return parseMdnsResponse(std::span(buffer.data(), static_cast<size_t>(n)), out);
}
