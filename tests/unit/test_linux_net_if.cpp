// Interface address, MAC and flags through ioctl, on the loopback interface that every
// Linux network namespace has, and the failures on names that cannot be asked about; and
// the port ids of the backend's netlink sockets, which must leave the process id to the
// sniffer.
#include <linux/netlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include "linux_test_support.h"
#include "platform/linux/netlink_socket.h"
#include "platform/zvt.h"

namespace {

using Bytes = std::array<unsigned char, 6>;

// Only IPv4 is known; the address comes in network order.
TEST(NetInterface, LoopbackAnswers) {
    Bytes v6{}, v4{}, mac;
    mac.fill(0xff);
    int flags = 0;
    const std::tuple got{getInAddr("lo", IP_ADDR + 1, v6.data()), v6,
                         getInAddr("lo", IP_ADDR, v4.data()),     v4,
                         getMacAddr("lo", mac.data()),            mac,
                         getInFlags("lo", &flags),                (flags & IFF_LOOPBACK) != 0};
    EXPECT_EQ(got, std::tuple(0, Bytes{}, 1, Bytes{127, 0, 0, 1, 0, 0}, 0, Bytes{}, 1, true));
}

// A failed MAC look-up is below -1: how callers test for failure.
TEST(NetInterface, BadNamesFailLeavingBuffersAlone) {
    const std::string tooLong(IFNAMSIZ, 'x');  // no room left for the terminator
    const Bytes untouched{0x5a, 0x5a, 0x5a, 0x5a, 0x5a, 0x5a};
    for (const char *name :
         {static_cast<const char *>(nullptr), "", "hx-no-such0", tooLong.c_str()}) {
        Bytes buffer = untouched;
        int flags = 0x5a;
        const std::tuple got{getInAddr(name, IP_ADDR, buffer.data()),
                             getMacAddr(name, buffer.data()) < -1, getInFlags(name, &flags), buffer,
                             flags};
        EXPECT_EQ(got, std::tuple(0, true, 0, untouched, 0x5a)) << (name ? name : "(null)");
    }
}

uint32_t portIdOf(const UniqueFd &sock) {
    sockaddr_nl local{};
    socklen_t size = sizeof local;
    (void)getsockname(sock.get(), reinterpret_cast<sockaddr *>(&local), &size);
    return local.nl_pid;  // 0 when the socket could not say
}

// The sniffer binds to the process id whenever it starts; ours must never hold it, and
// one opened while the sniffer's is bound still gets a port of its own. (In the lab the
// sniffer happens to bind first, so a socket taking the id there goes unnoticed.)
TEST(KernelNetlinkSocket, LeavesTheProcessIdFree) {
    const uint32_t pid = static_cast<uint32_t>(getpid());
    const UniqueFd ours = openKernelNetlinkSocket(NETLINK_ROUTE);
    UniqueFd sniffer(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    const sockaddr_nl local{.nl_family = AF_NETLINK, .nl_pad = 0, .nl_pid = pid, .nl_groups = 0};
    EXPECT_EQ(bind(sniffer.get(), reinterpret_cast<const sockaddr *>(&local), sizeof local), 0);
    const UniqueFd second = openKernelNetlinkSocket(NETLINK_ROUTE);
    for (const UniqueFd *sock : {&ours, &second})
        EXPECT_TRUE(sock->valid() && portIdOf(*sock) != 0 && portIdOf(*sock) != pid);
    EXPECT_NE(portIdOf(second), portIdOf(ours));
}

}  // namespace
