// The lease lookup by MAC, within the snapshot's count.
#include "linux_test_support.h"

namespace {

TEST(DhcpLeases, LookupByMacWithinTheCount) {
    dhcp_lease leases[3] = {};
    for (int i = 0; i < 3; ++i) leases[i].mac[5] = static_cast<uint8_t>(i + 1);
    const unsigned char second[6] = {0, 0, 0, 0, 0, 2}, third[6] = {0, 0, 0, 0, 0, 3},
                        absent[6] = {0, 0, 0, 0, 0, 9};
    dhcp_lease *record = nullptr;
    getDhcpClientInfo(leases, 3, second, &record);
    EXPECT_EQ(record, &leases[1]);
    record = nullptr;
    getDhcpClientInfo(leases, 3, absent, &record);
    getDhcpClientInfo(leases, 2, third, &record);    // beyond the count
    getDhcpClientInfo(nullptr, 0, second, &record);  // an empty snapshot
    EXPECT_EQ(record, nullptr);
}

}  // namespace
