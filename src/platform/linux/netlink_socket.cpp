#include "platform/linux/netlink_socket.h"

#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace {

// The sniffer's long-lived link-event socket binds to the process id. An unbound
// socket of ours would be autobound, and the kernel tries the process id first, so
// whichever came second would fail. Ours take the process id with the top bit set
// instead: autobind hands out ids counting down from -4096, far from these.
constexpr uint32_t kOwnPortIdBit = 0x80000000u;
constexpr timeval kReplyTimeout{1, 0};

bool bindPort(const UniqueFd &sock, uint32_t portId) {
    sockaddr_nl local{};
    local.nl_family = AF_NETLINK;
    local.nl_pid = portId;
    return bind(sock.get(), reinterpret_cast<const sockaddr *>(&local), sizeof local) == 0;
}

}  // namespace

UniqueFd openKernelNetlinkSocket(int protocol) {
    UniqueFd sock(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, protocol));
    if (!sock.valid() ||
        setsockopt(sock.get(), SOL_SOCKET, SO_RCVTIMEO, &kReplyTimeout, sizeof kReplyTimeout) != 0)
        return UniqueFd();
    if (bindPort(sock, kOwnPortIdBit | static_cast<uint32_t>(getpid()))) return sock;
    // Taken, e.g. while another of these sockets is still open: let the kernel choose
    // (port id 0), which by now no longer races with the sniffer's own bind.
    if (errno != EADDRINUSE || !bindPort(sock, 0)) sock.reset();
    return sock;
}
