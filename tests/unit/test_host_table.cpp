#include <cstring>

#include "fixture.h"

namespace {

class HostTableTest : public HostrixTest {
protected:
    void SetUp() override {
        HostrixTest::SetUp();
        setMaxLanHostNum(kHostPoolSize);
    }
};

// MACs whose octets XOR to the same value share a chain: 02:00:00:00:k:k -> chain 2.
fake::Mac sameChainMac(uint8_t k) { return fake::mac(0x02, 0, 0, 0, k, k); }

std::vector<hostEntry *> chainOf(uint32_t h) {
    std::vector<hostEntry *> entries;
    for (hostEntry *e = hashHeads[h]; e; e = e->next) entries.push_back(e);
    return entries;
}

TEST_F(HostTableTest, HashIsXorOfOctetsMaskedTo64Chains) {
    EXPECT_EQ(hostHash(fake::mac(0x02, 0, 0, 0, 0, 1).data()), 3u);
    EXPECT_EQ(hostHash(fake::mac(0xff, 0, 0, 0, 0, 0).data()), 63u);
    EXPECT_EQ(hostHash(fake::mac(0x40, 0, 0, 0, 0, 0).data()), 0u);
}

TEST_F(HostTableTest, ChainsAreNewestFirstAndLookupFindsOfflineHostsToo) {
    hostEntry *first = addHost(sameChainMac(1));
    hostEntry *second = addHost(sameChainMac(2));
    first->valid = 0;
    EXPECT_EQ(chainOf(2), (std::vector<hostEntry *>{second, first}));
    EXPECT_EQ(getHostrixByMac(sameChainMac(1).data()), first);
    EXPECT_EQ(getHostrixByMac(sameChainMac(2).data()), second);
    EXPECT_EQ(getHostrixByMac(sameChainMac(3).data()), nullptr);
}

TEST_F(HostTableTest, ZeroMacIsNeverLookedUpOrLinked) {
    fake::Mac zero{};
    EXPECT_EQ(getHostrixByMac(zero.data()), nullptr);
    EXPECT_EQ(getHostrixByMac(nullptr), nullptr);
    EXPECT_EQ(addNewToHashList(getFreeFromFreeList(), zero.data()), nullptr);
    EXPECT_EQ(addNewToHashList(nullptr, sameChainMac(1).data()), nullptr);
    for (hostEntry *head : hashHeads) EXPECT_EQ(head, nullptr);
}

TEST_F(HostTableTest, FreeListHandsOutTopSlotsUpToTheMaximumAndTakesThemBackZeroed) {
    setMaxLanHostNum(2);
    hostEntry *entry = getFreeFromFreeList();
    EXPECT_EQ(hostSlot(entry), 255u);
    EXPECT_EQ(hostSlot(getFreeFromFreeList()), 254u);
    EXPECT_EQ(getFreeFromFreeList(), nullptr);
    EXPECT_EQ(lanHostNum, 2u);
    std::strcpy(entry->lanHost.devName, "phone");
    insertIntoFreeList(entry);
    insertIntoFreeList(nullptr);  // reported, nothing changes
    EXPECT_EQ(freeList, entry);
    EXPECT_EQ(entry->lanHost.devName[0], '\0');
    EXPECT_EQ(lanHostNum, 1u);
}

// Chain 2 newest first: 7 6 (recyclable heads), 5 online, 4 3 (recyclable in a row),
// 2 blocked, 1 offline with its arrival unreported.
TEST_F(HostTableTest, RecyclingFreesOnlyOfflineUnblockedReportedHostsAnywhereInAChain) {
    hostEntry *e[8] = {};
    for (uint8_t k = 1; k <= 7; ++k) e[k] = addHost(sameChainMac(k));
    for (int k : {7, 6, 4, 3, 2, 1}) makeRecyclable(e[k]);
    e[2]->lanHost.internetAccess = kInternetAccessBlocked;
    e[1]->lanHost.firstConnect = 1;
    RecycleInvalidHostrix();
    EXPECT_EQ(chainOf(2), (std::vector<hostEntry *>{e[5], e[2], e[1]}));
    EXPECT_EQ(lanHostNum, 3u);
    // Each freed host was unregistered from both counter sets with its MAC intact.
    ASSERT_EQ(fake::state().hpcUpdates.size(), 8u);
    EXPECT_EQ(fake::state().hpcUpdates[0], std::make_pair(sameChainMac(7), 0));
}

TEST_F(HostTableTest, RemovalByNameTakesTheInterfaceAndItsVlansOnly) {
    const std::pair<const char *, bool> cases[] = {
        {"eth0", true}, {"eth0.10", true}, {"eth0x", false}, {"veth0", false}, {"eth01", false},
    };
    uint8_t k = 1;
    for (auto [ifname, removed] : cases) addHost(sameChainMac(k++), ifname);
    EXPECT_EQ(RemoveHostrixByIfname("eth0"), 2);
    k = 1;
    for (auto [ifname, removed] : cases)
        EXPECT_EQ(getHostrixByMac(sameChainMac(k++).data()) == nullptr, removed) << ifname;
    EXPECT_EQ(lanHostNum, 3u);
    EXPECT_EQ(RemoveHostrixByIfname(""), 0);
    EXPECT_EQ(RemoveHostrixByIfname(nullptr), 0);
}

TEST_F(HostTableTest, LoweringTheMaximumRecyclesFirstThenDropsTheTable) {
    hostEntry *online = addHost(sameChainMac(1));
    makeRecyclable(addHost(sameChainMac(2)));
    EXPECT_EQ(setMaxLanHostNum(1), 0);
    EXPECT_EQ(getHostrixByMac(sameChainMac(1).data()), online);
    setMaxLanHostNum(2);
    addHost(sameChainMac(3));
    EXPECT_EQ(setMaxLanHostNum(1), 0);
    EXPECT_EQ(lanHostNum, 0u);
    EXPECT_EQ(maxLanHostNum, 1u);
    EXPECT_EQ(getHostrixByMac(sameChainMac(1).data()), nullptr);
    EXPECT_EQ(fake::state().hpcUpdates.size(), 2u);  // a dropped table is not unregistered
    EXPECT_NE(getFreeFromFreeList(), nullptr);
}

TEST_F(HostTableTest, ControlledCountFollowsFlagChangesOnly) {
    hostEntry *entry = addHost(sameChainMac(1));
    setHostControlled(entry, 5);
    setHostControlled(entry, 1);
    EXPECT_EQ(entry->lanHost.controlled, 1);
    makeRecyclable(entry);
    RecycleInvalidHostrix();  // freeing clears the flag but keeps the count
    setHostControlled(addHost(sameChainMac(2)), 0);
    EXPECT_EQ(controlledNum, 1u);
}

}  // namespace
