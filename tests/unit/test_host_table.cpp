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

size_t freeListLength() {
    size_t n = 0;
    for (hostEntry *e = freeList; e; e = e->next) ++n;
    return n;
}

TEST_F(HostTableTest, HashIsXorOfOctetsMaskedTo64Chains) {
    EXPECT_EQ(hostHash(fake::mac(0x02, 0, 0, 0, 0, 1).data()), 3u);
    EXPECT_EQ(hostHash(fake::mac(0xff, 0, 0, 0, 0, 0).data()), 63u);
    EXPECT_EQ(hostHash(fake::mac(0x40, 0, 0, 0, 0, 0).data()), 0u);
}

TEST_F(HostTableTest, ChainsAreNewestFirstAndLookupFindsEachHost) {
    hostEntry *first = addHost(sameChainMac(1));
    hostEntry *second = addHost(sameChainMac(2));
    EXPECT_EQ(chainOf(2), (std::vector<hostEntry *>{second, first}));
    EXPECT_EQ(getHostrixByMac(sameChainMac(1).data()), first);
    EXPECT_EQ(getHostrixByMac(sameChainMac(2).data()), second);
    EXPECT_EQ(getHostrixByMac(sameChainMac(3).data()), nullptr);
}

TEST_F(HostTableTest, LookupFindsOfflineHostsToo) {
    hostEntry *entry = addHost(sameChainMac(1));
    entry->valid = 0;
    EXPECT_EQ(getHostrixByMac(sameChainMac(1).data()), entry);
}

TEST_F(HostTableTest, FreeListHandsOutSlotsFromTheTop) {
    EXPECT_EQ(freeListLength(), kHostPoolSize);
    EXPECT_EQ(hostSlot(getFreeFromFreeList()), 255u);
    EXPECT_EQ(hostSlot(getFreeFromFreeList()), 254u);
    EXPECT_EQ(lanHostNum, 2u);
}

TEST_F(HostTableTest, ZeroMacIsNeverLookedUpOrLinked) {
    fake::Mac zero{};
    EXPECT_EQ(getHostrixByMac(zero.data()), nullptr);
    EXPECT_EQ(getHostrixByMac(nullptr), nullptr);
    hostEntry *entry = getFreeFromFreeList();
    EXPECT_EQ(addNewToHashList(entry, zero.data()), nullptr);
    EXPECT_EQ(addNewToHashList(nullptr, sameChainMac(1).data()), nullptr);
    for (hostEntry *head : hashHeads) EXPECT_EQ(head, nullptr);
}

TEST_F(HostTableTest, AllocationStopsAtTheMaximum) {
    setMaxLanHostNum(2);
    EXPECT_NE(getFreeFromFreeList(), nullptr);
    EXPECT_NE(getFreeFromFreeList(), nullptr);
    EXPECT_EQ(getFreeFromFreeList(), nullptr);
    EXPECT_EQ(lanHostNum, 2u);
}

TEST_F(HostTableTest, NoHostIsAddedWhileTheMaximumIsZero) {
    setMaxLanHostNum(0);
    EXPECT_EQ(getFreeFromFreeList(), nullptr);
    EXPECT_EQ(lanHostNum, 0u);
}

TEST_F(HostTableTest, FreedEntryIsZeroedAndReturnedToTheHead) {
    hostEntry *entry = getFreeFromFreeList();
    std::strcpy(entry->lanHost.devName, "phone");
    insertIntoFreeList(entry);
    EXPECT_EQ(freeList, entry);
    EXPECT_EQ(entry->lanHost.devName[0], '\0');
    EXPECT_EQ(lanHostNum, 0u);
    insertIntoFreeList(nullptr);  // reported, nothing changes
    EXPECT_EQ(freeList, entry);
}

TEST_F(HostTableTest, RecyclingRemovesRecyclableHeadsAndKeepsTheRest) {
    hostEntry *kept = addHost(sameChainMac(1));
    hostEntry *a = addHost(sameChainMac(2));
    hostEntry *b = addHost(sameChainMac(3));
    hostEntry *c = addHost(sameChainMac(4));
    for (hostEntry *e : {a, b, c}) makeRecyclable(e);
    RecycleInvalidHostrix();
    EXPECT_EQ(chainOf(2), std::vector<hostEntry *>{kept});
    EXPECT_EQ(lanHostNum, 1u);
    // Each freed host was unregistered from both counter sets with its MAC intact.
    ASSERT_EQ(fake::state().hpcUpdates.size(), 6u);
    EXPECT_EQ(fake::state().hpcUpdates[0], std::make_pair(sameChainMac(4), 0));
}

TEST_F(HostTableTest, RecyclingSkipsMiddleEntriesCorrectly) {
    hostEntry *a = addHost(sameChainMac(1));
    hostEntry *b = addHost(sameChainMac(2));
    hostEntry *c = addHost(sameChainMac(3));
    hostEntry *d = addHost(sameChainMac(4));
    makeRecyclable(b);
    makeRecyclable(c);
    RecycleInvalidHostrix();
    EXPECT_EQ(chainOf(2), (std::vector<hostEntry *>{d, a}));
}

struct RecycleCase {
    const char *name;
    int8_t valid;
    uint8_t internetAccess;
    uint8_t firstConnect;
    bool recycled;
};

class RecycleRuleTest : public HostTableTest, public ::testing::WithParamInterface<RecycleCase> {};

TEST_P(RecycleRuleTest, OnlyOfflineUnblockedReportedHostsAreRecycled) {
    const RecycleCase &c = GetParam();
    hostEntry *entry = addHost(sameChainMac(1));
    entry->valid = c.valid;
    entry->lanHost.internetAccess = c.internetAccess;
    entry->lanHost.firstConnect = c.firstConnect;
    RecycleInvalidHostrix();
    EXPECT_EQ(getHostrixByMac(sameChainMac(1).data()) == nullptr, c.recycled);
    EXPECT_EQ(lanHostNum, c.recycled ? 0u : 1u);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, RecycleRuleTest,
    ::testing::Values(RecycleCase{"offline", 0, 2, 0, true},
                      RecycleCase{"online", 1, 2, 0, false},
                      RecycleCase{"blocked_offline", 0, kInternetAccessBlocked, 0, false},
                      RecycleCase{"arrival_unreported", 0, 2, 1, false}),
    CaseName());

struct IfnameCase {
    const char *hostIf;
    bool removed;
};

TEST_F(HostTableTest, RemovalByNameTakesTheInterfaceAndItsVlans) {
    const IfnameCase cases[] = {
        {"eth0", true}, {"eth0.10", true}, {"eth0x", false}, {"veth0", false}, {"eth01", false},
    };
    uint8_t k = 1;
    for (const IfnameCase &c : cases) addHost(fake::mac(0x02, 0, 0, 0, 0, k++), c.hostIf);
    EXPECT_EQ(RemoveHostrixByIfname("eth0"), 2);
    k = 1;
    for (const IfnameCase &c : cases) {
        bool present = getHostrixByMac(fake::mac(0x02, 0, 0, 0, 0, k++).data()) != nullptr;
        EXPECT_EQ(present, !c.removed) << c.hostIf;
    }
    EXPECT_EQ(lanHostNum, 3u);
}

TEST_F(HostTableTest, RemovalByNameTakesOnlineHostsAndWholeChains) {
    addHost(sameChainMac(1), "wlan0");
    addHost(sameChainMac(2), "wlan0");
    EXPECT_EQ(RemoveHostrixByIfname("wlan0"), 2);
    EXPECT_EQ(hashHeads[2], nullptr);
    EXPECT_EQ(RemoveHostrixByIfname(""), 0);
    EXPECT_EQ(RemoveHostrixByIfname(nullptr), 0);
}

TEST_F(HostTableTest, LimitsAbove256AreRejected) {
    EXPECT_EQ(setMaxLanHostNum(257), -1);
    EXPECT_EQ(maxLanHostNum, kHostPoolSize);
    EXPECT_EQ(setMaxControlledNum(0xffffffffu), -1);
    EXPECT_EQ(setMaxControlledNum(256), 0);
    EXPECT_EQ(maxControlledNum, 256u);
}

TEST_F(HostTableTest, LoweringTheMaximumRecyclesFirst) {
    hostEntry *online = addHost(sameChainMac(1));
    makeRecyclable(addHost(sameChainMac(2)));
    EXPECT_EQ(setMaxLanHostNum(1), 0);
    EXPECT_EQ(lanHostNum, 1u);
    EXPECT_EQ(getHostrixByMac(sameChainMac(1).data()), online);
}

TEST_F(HostTableTest, LoweringTheMaximumBelowOnlineHostsDropsTheTable) {
    addHost(sameChainMac(1));
    addHost(sameChainMac(2));
    EXPECT_EQ(setMaxLanHostNum(1), 0);
    EXPECT_EQ(lanHostNum, 0u);
    EXPECT_EQ(getHostrixByMac(sameChainMac(1).data()), nullptr);
    EXPECT_EQ(freeListLength(), kHostPoolSize);
    EXPECT_EQ(maxLanHostNum, 1u);
    EXPECT_TRUE(fake::state().hpcUpdates.empty());  // a dropped table is not unregistered
}

TEST_F(HostTableTest, ControlledCountFollowsFlagChangesOnly) {
    hostEntry *entry = addHost(sameChainMac(1));
    setHostControlled(entry, 5);
    setHostControlled(entry, 1);
    EXPECT_EQ(entry->lanHost.controlled, 1);
    EXPECT_EQ(controlledNum, 1u);
    makeRecyclable(entry);
    RecycleInvalidHostrix();  // freeing clears the flag but keeps the count
    EXPECT_EQ(controlledNum, 1u);
    hostEntry *other = addHost(sameChainMac(2));
    setHostControlled(other, 0);
    EXPECT_EQ(controlledNum, 1u);
}

TEST_F(HostTableTest, RegistrationCallsBothCounterSets) {
    hostEntry *entry = addHost(sameChainMac(1));
    EXPECT_EQ(updateLanHostHpc(entry, 1), 0);
    auto expected = std::make_pair(sameChainMac(1), 1);
    EXPECT_EQ(fake::state().hpcUpdates,
              (std::vector<std::pair<fake::Mac, int>>{expected, expected}));
}

}  // namespace
