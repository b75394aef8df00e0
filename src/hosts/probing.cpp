#include "hosts/probing.h"

#include <arpa/inet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "core/clock.h"
#include "core/log.h"
#include "core/settings.h"
#include "core/unique_fd.h"
#include "discovery/sources.h"
#include "hosts/host_table.h"
#include "platform/mib.h"
#include "platform/os.h"
#include "platform/zvt.h"

namespace {

constexpr const char *kBridge = "br0";
constexpr uint16_t kArpHardwareEthernet = 1;
constexpr uint16_t kArpOpRequest = 1;
constexpr uint8_t kEthAddrLen = 6;
constexpr uint8_t kIpv4AddrLen = 4;

// Offsets in the 42-byte request.
enum : size_t {
    kEthDest = 0,
    kEthSource = 6,
    kEthType = 12,
    kArpHardware = 14,
    kArpProtocol = 16,
    kArpHardwareLen = 18,
    kArpProtocolLen = 19,
    kArpOperation = 20,
    kArpSenderMac = 22,
    kArpSenderIp = 28,
    kArpTargetMac = 32,
    kArpTargetIp = 38,
};

uint8_t arpFrame[kArpFrameLen];

void putU16(size_t offset, uint16_t hostValue) {
    uint16_t wire = htons(hostValue);
    std::memcpy(arpFrame + offset, &wire, sizeof wire);
}

int openRawArpSocket(sockaddr_ll &link) {
    std::memset(&link, 0, sizeof link);
    link.sll_family = AF_PACKET;
    link.sll_protocol = htons(ETH_P_ARP);
    link.sll_ifindex = get_ifindex(kBridge);
    UniqueFd sock(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ETH_P_ARP)));
    if (!sock.valid()) {
        logPlain("[%s %d]:open socket error\n", "sendARPRequest", __LINE__);
        return -1;
    }
    if (bind(sock.get(), reinterpret_cast<const sockaddr *>(&link), sizeof link) < 0) {
        logPlain("[%s %d]:bind socket error\n", "sendARPRequest", __LINE__);
        return -1;
    }
    return sock.release();
}

ArpSocketOpener arpSocketOpener = openRawArpSocket;

// A series is due when it has requests left and the interval since the last one passed.
bool isArpDue(const hostEntry &entry, int64_t now) {
    const lanHostInfo_t &host = entry.lanHost;
    return host.arpReqIp != 0 && host.arpRetryCnt != 0 &&
           now - static_cast<int64_t>(entry.arpReqTime) >=
               static_cast<int64_t>(NET_INFO_ARP_INTERVAL);
}

bool anyArpDue(int64_t now) {
    for (const hostEntry &entry : hostPool)
        if (isArpDue(entry, now)) return true;
    return false;
}

// The request counts as sent even when no frame could be built or sent: the series
// moves on, and ageing decides on the host's silence.
void sendOneRequest(int fd, const sockaddr_ll &link, hostEntry &entry, int64_t now) {
    lanHostInfo_t &host = entry.lanHost;
    if (ARPRequestCreate(host.arpReqIp) == 0) {
        ssize_t sent = sendto(fd, arpFrame, kArpFrameLen, MSG_DONTWAIT,
                              reinterpret_cast<const sockaddr *>(&link), sizeof link);
        if (sent < 1)
            HX_DBG(DBG_ARP_SEND, "send ARP Request error. ret = %d, error = %s\n",
                   static_cast<int>(sent), std::strerror(errno));
    }
    HX_DBG(DBG_AGEING, "send ARP Request to %x (%d/%d).\n", ntohl(host.arpReqIp),
           static_cast<int>(NET_INFO_ARP_RETRY - host.arpRetryCnt + 1),
           static_cast<int>(NET_INFO_ARP_RETRY));
    --host.arpRetryCnt;
    entry.arpReqTime = static_cast<uint32_t>(now);
}

}  // namespace

std::span<const uint8_t, kArpFrameLen> arpRequestFrame() {
    return std::span<const uint8_t, kArpFrameLen>(arpFrame);
}

void setArpSocketOpener(ArpSocketOpener opener) {
    arpSocketOpener = opener ? opener : openRawArpSocket;
}

int get_ifindex(const char *name) {
    ifreq request{};
    std::strncpy(request.ifr_name, os_kernel_ifname(name).c_str(), IFNAMSIZ - 1);
    UniqueFd sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!sock.valid()) {
        logPlain("[%s %d]:socket() error.\n", __func__, __LINE__);
        std::exit(1);
    }
    if (ioctl(sock.get(), SIOCGIFINDEX, &request) < 0) {
        logPlain("[%s %d]:ioctl error.\n", __func__, __LINE__);
        std::exit(1);
    }
    return request.ifr_ifindex;
}

int ARPRequestCreate(uint32_t target) {
    std::memset(arpFrame, 0, sizeof arpFrame);
    uint8_t bridgeMac[kEthAddrLen] = {};
    if (getMacAddr(kBridge, bridgeMac) < -1) return 1;
    std::memset(arpFrame + kEthDest, 0xff, kEthAddrLen);
    std::memcpy(arpFrame + kEthSource, bridgeMac, kEthAddrLen);
    putU16(kEthType, ETH_P_ARP);
    putU16(kArpHardware, kArpHardwareEthernet);
    putU16(kArpProtocol, ETH_P_IP);
    arpFrame[kArpHardwareLen] = kEthAddrLen;
    arpFrame[kArpProtocolLen] = kIpv4AddrLen;
    putU16(kArpOperation, kArpOpRequest);
    std::memcpy(arpFrame + kArpSenderMac, bridgeMac, kEthAddrLen);
    uint32_t bridgeIp = 0;
    if (getInAddr(kBridge, IP_ADDR, &bridgeIp) == 0) {
        logPlain("%s[%d] getInAddr for br0 failed! \n", __func__, __LINE__);
        return 1;
    }
    std::memcpy(arpFrame + kArpSenderIp, &bridgeIp, kIpv4AddrLen);
    std::memset(arpFrame + kArpTargetMac, 0, kEthAddrLen);
    std::memcpy(arpFrame + kArpTargetIp, &target, kIpv4AddrLen);
    HX_DBG(DBG_TRACE, "%s %d \n", __func__, __LINE__);
    return 0;
}

// The socket exists only for a pass that has something to send.
int sendARPRequest() {
    if (!anyArpDue(monotonicSeconds())) return 0;
    sockaddr_ll link{};
    UniqueFd sock(arpSocketOpener(link));
    if (!sock.valid()) return -1;
    int64_t now = monotonicSeconds();
    for (hostEntry &entry : hostPool)
        if (isArpDue(entry, now)) sendOneRequest(sock.get(), link, entry, now);
    return 0;
}

int sendIpv6NeighSolicit() {
    for (hostEntry &entry : hostPool) {
        const uint8_t *ipv6 = entry.lanHost.ipv6;
        if (entry.valid == 1 && !isZeroIpv6(ipv6) && !isLinkLocalIpv6(ipv6))
            zvt_ipv6_send_neigh_solicit(kBridge, ipv6);
    }
    return 0;
}
