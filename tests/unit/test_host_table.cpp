#include "discovery/wlan_sta.h"
#include "fixture.h"

namespace {

hostEntry *const kNoHost = nullptr;

struct HostTableTest : HostrixTest {
    // MACs whose octets XOR to the same value share a chain: 02:00:00:00:k:k -> chain 2.
    static fake::Mac macK(uint8_t k) { return fake::mac(0x02, 0, 0, 0, k, k); }
    static hostEntry *find(uint8_t k) { return getHostrixByMac(macK(k).data()); }
    static std::vector<hostEntry *> chain2() {
        std::vector<hostEntry *> entries;
        for (hostEntry *e = hashHeads[2]; e; e = e->next) entries.push_back(e);
        return entries;
    }
    // Each freed host is unregistered from both counter sets while it still has its MAC.
    static std::vector<std::pair<fake::Mac, int>> unregistered(std::initializer_list<uint8_t> ks) {
        std::vector<std::pair<fake::Mac, int>> updates;
        for (uint8_t k : ks) updates.insert(updates.end(), 2, {macK(k), 0});
        return updates;
    }
};

// Slots go out from 255 down and up to the maximum; a freed entry comes back zeroed.
// An empty free list gives nothing and counts nothing. A reset empties the table and
// forgets the last wireless station snapshot.
TEST_F(HostTableTest, FreeListHandsOutTopSlotsUpToTheMaximum) {
    setMaxLanHostNum(2);
    hostEntry *entry = getFreeFromFreeList();
    EXPECT_EQ(std::pair(hostSlot(entry), hostSlot(getFreeFromFreeList())), std::pair(255u, 254u));
    EXPECT_EQ(getFreeFromFreeList(), nullptr);
    std::strcpy(entry->lanHost.devName, "phone");
    insertIntoFreeList(entry);
    EXPECT_EQ(lanHostNum, 1u);
    EXPECT_EQ(getFreeFromFreeList(), entry);
    EXPECT_EQ(entry->lanHost.devName[0], '\0');
    setMaxLanHostNum(kHostPoolSize);
    while (getFreeFromFreeList()) continue;
    lanHostNum = 100;
    EXPECT_EQ(getFreeFromFreeList(), nullptr);
    EXPECT_EQ(lanHostNum, 100u);
    wlanStaTable[3].staNum = 1;
    wlanStaTable[3].staList = static_cast<wlStaInfo *>(std::calloc(1, sizeof(wlStaInfo)));
    initHostrixData();
    EXPECT_EQ(wlanStaTable[3].staNum + !!wlanStaTable[3].staList, 0u);
    EXPECT_EQ(hostSlot(getFreeFromFreeList()), 255u);
}

// Chain 2 newest first: 7 6 (recyclable heads), 5 online, 4 3 (recyclable in a row),
// 2 blocked, 1 offline with its arrival unreported.
TEST_F(HostTableTest, RecyclingFreesOnlyOfflineUnblockedReportedHostsAnywhereInAChain) {
    hostEntry *e[8] = {};
    for (uint8_t k = 1; k <= 7; ++k) e[k] = addHost(macK(k));
    for (int k : {7, 6, 4, 3, 2, 1}) makeRecyclable(e[k]);
    e[2]->lanHost.internetAccess = kInternetAccessBlocked;
    e[1]->lanHost.firstConnect = 1;
    RecycleInvalidHostrix();
    EXPECT_EQ(chain2(), (std::vector<hostEntry *>{e[5], e[2], e[1]}));
    EXPECT_EQ(lanHostNum, 3u);
    EXPECT_EQ(fake::state().hpcUpdates, unregistered({7, 6, 4, 3}));
}

// Online or not, hosts of the interface and its VLANs go; eth0x, veth0, eth01 stay.
TEST_F(HostTableTest, RemovalByNameTakesTheInterfaceAndItsVlansOnly) {
    const char *names[] = {"eth0", "eth0.10", "eth0x", "veth0", "eth01"};
    for (uint8_t k = 1; k <= 5; ++k) addHost(macK(k), names[k - 1])->valid = k % 2;
    EXPECT_EQ(RemoveHostrixByIfname("eth0"), 2);
    for (uint8_t k = 1; k <= 5; ++k) EXPECT_EQ(find(k) == nullptr, k <= 2) << names[k - 1];
    EXPECT_EQ(lanHostNum, 3u);
    EXPECT_EQ(fake::state().hpcUpdates, unregistered({2, 1}));
}

// Only a maximum below the count recycles; when recycling cannot make room the whole
// table goes, without unregistering its hosts.
TEST_F(HostTableTest, LoweringTheMaximumRecyclesThenDropsTheTable) {
    hostEntry *online = addHost(macK(1));
    makeRecyclable(addHost(macK(2)));
    setMaxLanHostNum(2);
    EXPECT_NE(find(2), nullptr);
    setMaxLanHostNum(1);
    EXPECT_EQ(std::pair(find(1), find(2)), std::pair(online, kNoHost));
    setMaxLanHostNum(2);
    addHost(macK(3));
    setMaxLanHostNum(1);
    EXPECT_EQ(std::tuple(lanHostNum, maxLanHostNum, find(1)), std::tuple(0u, 1u, kNoHost));
    EXPECT_EQ(fake::state().hpcUpdates, unregistered({2}));
}

}  // namespace
