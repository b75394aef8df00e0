// Interface address, MAC and flags through ioctl, on the loopback interface that every
// Linux network namespace has, and the failures on names that cannot be asked about;
// the refusals of the neighbour solicitation.
#include <net/if.h>

#include "linux_test_support.h"
#include "platform/linux/neigh_solicit.h"
#include "platform/zvt.h"

namespace {

using Bytes = std::array<unsigned char, 6>;

TEST(NetInterface, LoopbackAnswers) {
    Bytes buffer{};
    EXPECT_EQ(getInAddr("lo", IP_ADDR + 1, buffer.data()), 0);  // only IPv4 is known
    EXPECT_EQ(buffer, Bytes{});
    ASSERT_EQ(getInAddr("lo", IP_ADDR, buffer.data()), 1);
    EXPECT_EQ(buffer, (Bytes{127, 0, 0, 1, 0, 0}));  // network order
    buffer.fill(0xff);
    EXPECT_EQ(getMacAddr("lo", buffer.data()), 0);
    EXPECT_EQ(buffer, Bytes{});
    int flags = 0;
    EXPECT_EQ(getInFlags("lo", &flags), 1);
    EXPECT_TRUE(flags & IFF_LOOPBACK);
}

TEST(NetInterface, BadNamesFailLeavingBuffersAlone) {
    const std::string tooLong(IFNAMSIZ, 'x');  // no room left for the terminator
    for (const char *name :
         {static_cast<const char *>(nullptr), "", "hx-no-such0", tooLong.c_str()}) {
        const Bytes untouched{0x5a, 0x5a, 0x5a, 0x5a, 0x5a, 0x5a};
        Bytes buffer = untouched;
        int flags = 0x5a;
        EXPECT_EQ(getInAddr(name, IP_ADDR, buffer.data()), 0) << (name ? name : "(null)");
        EXPECT_LT(getMacAddr(name, buffer.data()), -1);  // how callers test for failure
        EXPECT_EQ(getInFlags(name, &flags), 0);
        EXPECT_EQ(buffer, untouched);
        EXPECT_EQ(flags, 0x5a);
    }
}

// Solicitations that cannot go out: the frame itself is checked in the lab.
TEST(NeighSolicit, RefusesWhatCannotBeSent) {
    const uint8_t target[kIpv6AddressBytes] = {0x20, 0x01, 0x0d, 0xb8};
    EXPECT_EQ(zvt_ipv6_send_neigh_solicit(nullptr, target), -1);
    EXPECT_EQ(zvt_ipv6_send_neigh_solicit("hx-no-such0", target), -1);
    EXPECT_EQ(zvt_ipv6_send_neigh_solicit("lo", nullptr), -1);
}

}  // namespace
