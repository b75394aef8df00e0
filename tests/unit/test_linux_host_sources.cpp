// Host sources on Linux: the ownership rules of the forwarding list and the lease
// lookup by MAC.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "platform/mib.h"

namespace {

TEST(BridgeFdb, FreeReleasesEveryNodeAndClearsTheHead) {
    fdb *head = nullptr;
    for (int i = 0; i < 3; ++i) {
        auto *node = static_cast<fdb *>(std::calloc(1, sizeof(fdb)));
        ASSERT_NE(node, nullptr);
        node->next = head;
        head = node;
    }
    free_bridge_fdb(&head);  // the sanitizer build reports a node left behind
    EXPECT_EQ(head, nullptr);
    free_bridge_fdb(&head);
    free_bridge_fdb(nullptr);
}

TEST(DhcpLeases, LookupByMac) {
    dhcp_lease leases[3] = {};
    for (int i = 0; i < 3; ++i) leases[i].mac[5] = static_cast<uint8_t>(i + 1);
    const unsigned char second[6] = {0, 0, 0, 0, 0, 2};
    const unsigned char absent[6] = {0, 0, 0, 0, 0, 9};
    const unsigned char third[6] = {0, 0, 0, 0, 0, 3};

    dhcp_lease *record = nullptr;
    getDhcpClientInfo(leases, 3, second, &record);
    EXPECT_EQ(record, &leases[1]);

    record = nullptr;
    getDhcpClientInfo(leases, 3, absent, &record);
    EXPECT_EQ(record, nullptr);

    getDhcpClientInfo(leases, 2, third, &record);  // beyond the count
    EXPECT_EQ(record, nullptr);
    getDhcpClientInfo(nullptr, 0, second, &record);  // an empty snapshot
    EXPECT_EQ(record, nullptr);
}

}  // namespace
