#include <set>

#include "hosts/liveness.h"
#include "root_fixture.h"

namespace {

constexpr uint32_t kNone = UINT32_MAX;

struct LivenessTest : RootedTest {
    void SetUp() override {
        RootedTest::SetUp();
        fake::state().onCommand = [this](const std::string &line) {
            if (line == "cat /proc/fc/sw_dump/l2 > " + snapshot) std::ofstream(snapshot) << "x\n";
        };
    }
    // Host 192.168.1.K, last confirmed IDLE seconds ago.
    hostEntry *host(uint8_t k, uint32_t idle, uint8_t type = CONNECTION_WIRED) {
        hostEntry *entry = addHost(localMac(k), type ? "wlan0" : "eth0.2");
        entry->lanHost.connectionType = type;
        entry->lanHost.ip = htonl(0xc0a80100u | k);
        entry->updateTime = static_cast<uint32_t>(fake::state().monotonic.tv_sec) - idle;
        return entry;
    }
    std::string grep(uint8_t k) const {
        return "cat " + snapshot + " | grep -A 1 \"02:00:00:00:00:0" + std::to_string(k) + "\"";
    }
    const std::string snapshot = root.file("tmp/fc_lut_list");
};

// Wired hosts 1-6 at the timeout share one copy of the engine's dump; the line after
// the MAC's holds the engine's idle time. The wireless host 7 is not looked up.
TEST_F(LivenessTest, EngineIdleTimeDecidesAWiredTimeoutFromOneSnapshot) {
    const std::pair<const char *, int8_t> dumps[] = {
        {"mac\nvid=1 Idle(s)=5\n", 1}, {"mac\nIdle(s)=89\n", 1},
        {"mac\nIdle(s)=90\n", 0},      {"Idle(s)=5\n", 0},
        {"mac\nvid=1\n", 0},           {"", 0}};
    std::multiset<std::string> expected{"cat /proc/fc/sw_dump/l2 > " + snapshot};
    for (uint8_t k = 1; k <= 6; ++k) {
        host(k, 90);
        fake::state().commandOutput[grep(k)] = dumps[k - 1].first;
        expected.insert(grep(k));
    }
    hostEntry *wireless = host(7, 90, CONNECTION_WIRELESS);
    invalidAgingOutHostrix();
    const std::vector<std::string> &ran = fake::state().commands;
    EXPECT_EQ(std::multiset(ran.begin(), ran.end()), expected);
    for (uint8_t k = 1; k <= 6; ++k)
        EXPECT_EQ(hostPool[256 - k].valid, dumps[k - 1].second) << dumps[k - 1].first;
    EXPECT_EQ(wireless->lanHost.disConnect, 1);
    EXPECT_FALSE(std::filesystem::exists(snapshot));
}

// Wireless hosts, so that no engine lookup interferes. Probing starts once either the
// bridge or discovery has not seen the host for 60 s; at 90 s unconfirmed the host goes
// offline, marked for reporting with its local time, and a series still running
// outlives it.
TEST_F(LivenessTest, AgeingProbesQuietHostsAndDisconnectsSilentOnes) {
    // What the host is: its time unconfirmed (idle), idleSecs, the requests left of an open
    // series (kNone: none open), whether it has an address; then the requests left after
    // ageing, whether it went offline and whether a series is open.
    const std::tuple<const char *, uint32_t, uint32_t, uint32_t, bool, uint32_t, bool, bool>
        cases[] = {
            {"active closes its series", 59, 59, 2, true, 0, false, false},
            {"unconfirmed 60 s", 60, 0, kNone, true, 3, false, true},
            {"bridge idle 60 s", 0, 60, kNone, true, 3, false, true},
            {"no address to ask", 65, 0, kNone, false, 0, false, false},
            {"spent series not reopened", 65, 0, 0, true, 0, false, true},
            {"89 s still online", 89, 0, kNone, true, 3, false, true},
            {"timeout keeps a running series", 90, 70, 2, true, 2, true, true},
            {"timeout closes a spent series", 90, 70, 0, true, 0, true, false},
        };
    setenv("TZ", "UTC0", 1);
    tzset();
    fake::state().wall = 1709802300;  // 2024-03-07 09:05:00 UTC
    for (uint8_t k = 1; k <= std::size(cases); ++k) {
        const auto &[name, idle, idleSecs, retriesLeft, hasIp, after, gone, probing] = cases[k - 1];
        hostEntry *entry = host(k, idle, CONNECTION_WIRELESS);
        entry->idleSecs = idleSecs;
        entry->arpReqTime = entry->lanHost.onLineTime = entry->lanHost.firstConnect = 1;
        entry->lanHost.ip = hasIp ? entry->lanHost.ip : 0;
        entry->lanHost.arpReqIp = retriesLeft == kNone ? 0 : entry->lanHost.ip;
        entry->lanHost.arpRetryCnt = retriesLeft == kNone ? 0 : retriesLeft;
    }
    invalidAgingOutHostrix();
    unsetenv("TZ");
    tzset();
    EXPECT_TRUE(fake::state().commands.empty());
    for (uint8_t k = 1; k <= std::size(cases); ++k) {
        const auto &[name, idle, idleSecs, retriesLeft, hasIp, after, gone, probing] = cases[k - 1];
        const hostEntry &entry = hostPool[256 - k];
        const lanHostInfo_t &h = entry.lanHost;
        EXPECT_EQ(std::tuple(h.arpReqIp, h.arpRetryCnt, entry.valid, h.disConnect, h.firstConnect,
                             h.onLineTime, entry.arpReqTime, entry.idleSecs,
                             std::string(h.disConnectTime)),
                  std::tuple(probing ? h.ip : 0u, after, !gone, gone, !gone, !gone, !gone,
                             gone ? 0 : idleSecs, gone ? "2024:3:7:9:5:0" : ""))
            << name;
    }
}

TEST_F(LivenessTest, LinkDownTakesOnlineHostsOfALanPortOfflineWithTheirNeighbours) {
    fake::state().phyIds = {{"eth0.2", 4}, {"eth0.3", 5}};
    hostEntry *entries[5] = {};
    for (uint8_t k = 1; k <= 4; ++k) (entries[k] = host(k, 0))->phyPortId = k == 4 ? 4 : 5;
    inet_pton(AF_INET6, "fe80::1", entries[1]->lanHost.ipv6);
    entries[2]->lanHost.ip = 0;
    entries[3]->valid = 0;
    EXPECT_EQ(disableHostrixByPortIdx(9), -1);  // no LAN port has phy id 9
    EXPECT_TRUE(fake::state().commands.empty());
    EXPECT_EQ(disableHostrixByPortIdx(5), 0);
    EXPECT_EQ(fake::state().commands,
              (std::vector<std::string>{"/bin/arp -d 192.168.1.1",
                                        "/bin/ip -6 neigh del fe80::1 dev br0"}));
    EXPECT_EQ(std::tuple(entries[1]->lanHost.disConnect, entries[2]->lanHost.disConnect,
                         entries[3]->lanHost.disConnect, entries[4]->valid),
              std::tuple(1, 1, 0, 1));
}

}  // namespace
