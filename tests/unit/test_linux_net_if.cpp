// Interface address, MAC and flags through ioctl, on the loopback interface that every
// Linux network namespace has, and the failures on names that cannot be asked about.
#include <gtest/gtest.h>
#include <net/if.h>

#include <array>
#include <string>

#include "platform/mib.h"

namespace {

// Names parameterised cases after their `name` member.
struct CaseName {
    template <typename T>
    std::string operator()(const ::testing::TestParamInfo<T> &param) const {
        return param.param.name;
    }
};

TEST(NetInterface, LoopbackAnswers) {
    std::array<unsigned char, 4> address{};
    ASSERT_EQ(getInAddr("lo", IP_ADDR, address.data()), 1);
    EXPECT_EQ(address, (std::array<unsigned char, 4>{127, 0, 0, 1}));  // network order

    std::array<unsigned char, 6> mac;
    mac.fill(0xff);
    EXPECT_EQ(getMacAddr("lo", mac.data()), 0);
    EXPECT_EQ(mac, (std::array<unsigned char, 6>{}));

    int flags = 0;
    EXPECT_EQ(getInFlags("lo", &flags), 1);
    EXPECT_TRUE(flags & IFF_LOOPBACK);
}

TEST(NetInterface, OnlyTheIpv4AddressTypeIsKnown) {
    std::array<unsigned char, 4> address{};
    EXPECT_EQ(getInAddr("lo", IP_ADDR + 1, address.data()), 0);
    EXPECT_EQ(address, (std::array<unsigned char, 4>{}));
}

struct BadNameCase {
    const char *name;
    const char *ifname;
};

class NetInterfaceBadName : public ::testing::TestWithParam<BadNameCase> {};

TEST_P(NetInterfaceBadName, FailsLeavingBuffersAlone) {
    const char *ifname = GetParam().ifname;
    std::array<unsigned char, 6> buffer;
    buffer.fill(0x5a);
    int flags = 0x5a;
    EXPECT_EQ(getInAddr(ifname, IP_ADDR, buffer.data()), 0);
    EXPECT_LT(getMacAddr(ifname, buffer.data()), -1);  // how callers test for failure
    EXPECT_EQ(getInFlags(ifname, &flags), 0);
    EXPECT_EQ(buffer, (std::array<unsigned char, 6>{0x5a, 0x5a, 0x5a, 0x5a, 0x5a, 0x5a}));
    EXPECT_EQ(flags, 0x5a);
}

const std::string kTooLong(IFNAMSIZ, 'x');  // no room left for the terminator

INSTANTIATE_TEST_SUITE_P(Names, NetInterfaceBadName,
                         ::testing::Values(BadNameCase{"Null", nullptr}, BadNameCase{"Empty", ""},
                                           BadNameCase{"Absent", "hx-no-such0"},
                                           BadNameCase{"TooLong", kTooLong.c_str()}),
                         CaseName());

}  // namespace
