// Interface address, MAC and flags through ioctl, on the loopback interface that every
// Linux network namespace has, and the failures on names that cannot be asked about.
#include <net/if.h>

#include "linux_test_support.h"
#include "platform/linux/ifnames.h"

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

// The daemon asks by its own names; a mapped one is asked of the kernel by the other.
TEST_F(HostrixRootTest, MappedNameAskedByTheKernelName) {
    writeConfig("ifname.br0 = lo\n");
    (void)mibConfigCurrent();  // publishes the map
    Bytes buffer{};
    ASSERT_EQ(getInAddr("br0", IP_ADDR, buffer.data()), 1);
    EXPECT_EQ(buffer, (Bytes{127, 0, 0, 1, 0, 0}));
    ifnamesPublish(IfnameMap{});  // later tests in this process see no map
}

}  // namespace
