#include "platform/linux/netlink_route.h"

#include <linux/neighbour.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>

#include "core/netlink_walk.h"
#include "platform/linux/netlink_socket.h"
#include "platform/linux/read_util.h"

namespace {

constexpr size_t kInitialBuffer = 32768;  // what the kernel fills per dump datagram
constexpr size_t kMaxDatagram = size_t{1} << 20;
constexpr int kMaxDumpDatagrams = 1024;  // bounds the receive loop of a dump
constexpr int kMaxAckDatagrams = 16;     // stray datagrams skipped while waiting for an ack
constexpr size_t kAckBuffer = 4096;

// The end of a dump carries the dump's own result; a negative one means it failed.
RouteDumpStatus doneStatus(std::span<const uint8_t> payload) {
    if (payload.size() >= sizeof(int32_t) && readAt<int32_t>(payload, 0) < 0)
        return RouteDumpStatus::Failed;
    return RouteDumpStatus::Done;
}

// Route answers may end in a few bytes too short for a header; they are passed over.
bool walkedWhole(size_t left) {
    return left < sizeof(nlmsghdr);
}

ssize_t receiveRetrying(const UniqueFd &sock, std::vector<uint8_t> &buffer, int flags,
                        sockaddr_nl *from) {
    socklen_t fromLength = sizeof *from;
    ssize_t got;
    do {
        got = recvfrom(sock.get(), buffer.data(), buffer.size(), flags,
                       reinterpret_cast<sockaddr *>(from), &fromLength);
    } while (got < 0 && errno == EINTR);
    return got;
}

}  // namespace

NetlinkRequest::NetlinkRequest(uint16_t type, uint16_t flags) {
    nlmsghdr *message = mnl_nlmsg_put_header(bytes_);
    message->nlmsg_type = type;
    message->nlmsg_flags = static_cast<uint16_t>(NLM_F_REQUEST | flags);
}

void NetlinkRequest::attribute(uint16_t type, const void *data, size_t size) {
    if (!mnl_attr_put_check(header(), sizeof bytes_, type, size, data)) overflowed_ = true;
}

std::span<const uint8_t> NetlinkRequest::finish(uint32_t sequence, uint16_t extraFlags) {
    if (overflowed_) return {};
    header()->nlmsg_seq = sequence;
    header()->nlmsg_flags = static_cast<uint16_t>(header()->nlmsg_flags | extraFlags);
    return {bytes_, header()->nlmsg_len};
}

UniqueFd openRouteSocket() {
    return openKernelNetlinkSocket(NETLINK_ROUTE);
}

uint32_t nextRouteSequence() {
    static std::atomic<uint32_t> sequence{0};
    return ++sequence;
}

bool sendRouteRequest(const UniqueFd &sock, std::span<const uint8_t> message) {
    if (message.empty()) {
        errno = EMSGSIZE;
        return false;
    }
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    ssize_t sent;
    do {
        sent = sendto(sock.get(), message.data(), message.size(), 0,
                      reinterpret_cast<const sockaddr *>(&kernel), sizeof kernel);
    } while (sent < 0 && errno == EINTR);
    return sent == static_cast<ssize_t>(message.size());
}

bool requestNeighDump(const UniqueFd &sock, uint32_t sequence, uint8_t family) {
    NetlinkRequest request(RTM_GETNEIGH, NLM_F_DUMP);
    ndmsg body{};
    body.ndm_family = family;
    request.body(body);
    return sendRouteRequest(sock, request.finish(sequence, 0));
}

ssize_t receiveRouteDatagram(const UniqueFd &sock, std::vector<uint8_t> &buffer) {
    sockaddr_nl from{};
    const ssize_t size = receiveRetrying(sock, buffer, MSG_PEEK | MSG_TRUNC, &from);
    if (size < 0 || static_cast<size_t>(size) > kMaxDatagram) return -1;
    if (static_cast<size_t>(size) > buffer.size()) buffer.resize(static_cast<size_t>(size));
    const ssize_t got = receiveRetrying(sock, buffer, 0, &from);
    if (got < 0) return -1;
    return from.nl_pid == 0 ? got : 0;
}

// A dump interrupted by a change (NLM_F_DUMP_INTR) is still taken: its entries are
// real, and the next reader asks again soon.
RouteDumpStatus walkRouteDatagram(std::span<const uint8_t> datagram, uint32_t sequence,
                                  const RouteMessageVisitor &visit) {
    RouteDumpStatus status = RouteDumpStatus::More;
    const size_t left = netlink::forEachMessage(datagram, [&](const nlmsghdr *message) {
        if (message->nlmsg_seq != sequence) return true;
        const uint16_t type = message->nlmsg_type;
        const auto payload = netlink::payloadOf(message);
        if (type == NLMSG_DONE) status = doneStatus(payload);
        if (type == NLMSG_ERROR || type == NLMSG_OVERRUN) status = RouteDumpStatus::Failed;
        if (type >= NLMSG_MIN_TYPE) visit(type, payload);
        return status == RouteDumpStatus::More;
    });
    return walkedWhole(left) ? status : RouteDumpStatus::Failed;
}

bool readRouteDump(const UniqueFd &sock, const RouteDatagramDecoder &decode) {
    std::vector<uint8_t> buffer(kInitialBuffer);
    for (int i = 0; i < kMaxDumpDatagrams; ++i) {
        const ssize_t got = receiveRouteDatagram(sock, buffer);
        if (got < 0) return false;
        const std::span<const uint8_t> datagram(buffer.data(), static_cast<size_t>(got));
        switch (decode(datagram)) {
            case RouteDumpStatus::More:
                break;
            case RouteDumpStatus::Done:
                return true;
            case RouteDumpStatus::Failed:
                return false;
        }
    }
    return false;
}

int decodeRouteAck(std::span<const uint8_t> datagram, uint32_t sequence) {
    int result = kNoRouteAck;
    const size_t left = netlink::forEachMessage(datagram, [&](const nlmsghdr *message) {
        if (message->nlmsg_seq != sequence || message->nlmsg_type != NLMSG_ERROR) return true;
        const auto payload = netlink::payloadOf(message);
        if (payload.size() < sizeof(int32_t)) return false;
        const int32_t error = readAt<int32_t>(payload, 0);
        // Errors are negated errnos; anything else in that field is not an answer.
        if (error <= 0 && error > -4096) result = -error;
        return false;
    });
    return walkedWhole(left) ? result : kNoRouteAck;
}

int routeTransact(const UniqueFd &sock, NetlinkRequest &request) {
    const uint32_t sequence = nextRouteSequence();
    errno = 0;
    if (!sendRouteRequest(sock, request.finish(sequence, NLM_F_ACK))) return errno ? errno : EIO;
    std::vector<uint8_t> buffer(kAckBuffer);
    for (int i = 0; i < kMaxAckDatagrams; ++i) {
        const ssize_t got = receiveRouteDatagram(sock, buffer);
        if (got < 0) return errno == EAGAIN || errno == EWOULDBLOCK ? ETIMEDOUT : EIO;
        const int result = decodeRouteAck({buffer.data(), static_cast<size_t>(got)}, sequence);
        if (result != kNoRouteAck) return result;
    }
    return EIO;
}
