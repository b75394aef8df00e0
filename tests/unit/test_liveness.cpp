#include <arpa/inet.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "hosts/liveness.h"
#include "root_fixture.h"

namespace {

constexpr uint32_t kLongIdle = 90;   // exactly the timeout
constexpr uint32_t kProbeIdle = 65;  // past the 60 s probing start only

class LivenessTest : public RootedTest {
protected:
    void SetUp() override {
        RootedTest::SetUp();
        setMaxLanHostNum(kHostPoolSize);
        snapshot = hostrixPath(HostrixFile::FcLutList);
        fake::state().onCommand = [this](const std::string &line) {
            if (line == copyCommand()) std::ofstream(snapshot) << "x\n";
        };
    }
    // Host 192.168.1.K, last confirmed IDLE seconds ago.
    hostEntry *host(uint8_t k, uint32_t idle, uint8_t type = CONNECTION_WIRED) {
        hostEntry *entry = addHost(fake::mac(2, 0, 0, 0, 0, k), type ? "wlan0" : "eth0.2");
        entry->lanHost.connectionType = type;
        entry->lanHost.ip = htonl(0xc0a80100u | k);
        entry->updateTime = static_cast<uint32_t>(fake::state().monotonic.tv_sec) - idle;
        return entry;
    }
    std::string copyCommand() const { return "cat /proc/fc/sw_dump/l2 > " + snapshot; }
    std::string grep(uint8_t k) const {
        return "cat " + snapshot + " | grep -A 1 \"02:00:00:00:00:0" + std::to_string(k) + "\"";
    }
    std::string snapshot;
};

// Wired hosts 1-6 at the timeout share one copy of the engine's dump; the line
// after the MAC's holds the engine idle time. The wireless host 7 is not looked up.
TEST_F(LivenessTest, EngineIdleTimeDecidesAWiredTimeoutFromOneSnapshot) {
    const std::pair<const char *, int8_t> dumps[] = {
        {"mac\nvid=1 Idle(s)=5\n", 1}, {"mac\nIdle(s)=90\n", 0}, {"mac\nIdle(s)=95\n", 0},
        {"Idle(s)=5\n", 0}, {"mac\nvid=1\n", 0}, {"", 0},
    };
    std::vector<std::string> expected{copyCommand()};
    for (uint8_t k = 1; k <= 6; ++k) {
        host(k, kLongIdle);
        fake::state().commandOutput[grep(k)] = dumps[k - 1].first;
        expected.push_back(grep(k));
    }
    hostEntry *wireless = host(7, kLongIdle, CONNECTION_WIRELESS);
    invalidAgingOutHostrix();
    std::sort(expected.begin(), expected.end());
    std::vector<std::string> ran = fake::state().commands;
    std::sort(ran.begin(), ran.end());
    EXPECT_EQ(ran, expected);
    for (uint8_t k = 1; k <= 6; ++k)
        EXPECT_EQ(getHostrixByMac(fake::mac(2, 0, 0, 0, 0, k).data())->valid, dumps[k - 1].second)
            << dumps[k - 1].first;
    EXPECT_EQ(wireless->lanHost.disConnect, 1);
    EXPECT_FALSE(std::filesystem::exists(snapshot));
}

TEST_F(LivenessTest, ProbingOpensWhenIdleClosesWhenActiveAndOutlivesATimeoutUntilSpent) {
    hostEntry *idle = host(1, kProbeIdle, CONNECTION_WIRELESS);
    hostEntry *noIp = host(2, kProbeIdle, CONNECTION_WIRELESS);
    noIp->lanHost.ip = 0;
    hostEntry *active = host(3, 0, CONNECTION_WIRELESS);
    hostEntry *running = host(4, kLongIdle, CONNECTION_WIRELESS);
    hostEntry *spent = host(5, kLongIdle, CONNECTION_WIRELESS);
    for (hostEntry *entry : {active, running, spent}) entry->lanHost.arpReqIp = entry->lanHost.ip;
    active->lanHost.arpRetryCnt = running->lanHost.arpRetryCnt = 2;
    invalidAgingOutHostrix();
    EXPECT_EQ(idle->lanHost.arpReqIp, idle->lanHost.ip);
    EXPECT_EQ(idle->lanHost.arpRetryCnt, NET_INFO_ARP_RETRY);
    EXPECT_EQ(noIp->lanHost.arpReqIp + noIp->lanHost.arpRetryCnt, 0u);
    EXPECT_EQ(active->lanHost.arpReqIp + active->lanHost.arpRetryCnt, 0u);
    EXPECT_EQ(running->lanHost.arpReqIp, running->lanHost.ip);
    EXPECT_EQ(running->lanHost.arpRetryCnt, 2u);
    EXPECT_EQ(spent->lanHost.arpReqIp, 0u);
    EXPECT_EQ(running->valid + spent->valid, 0);
}

TEST_F(LivenessTest, LinkDownTakesOnlineHostsOfALanPortOfflineWithTheirNeighbours) {
    fake::state().phyIds = {{"eth0.2", 4}, {"eth0.3", 5}};
    hostEntry *entries[5] = {};
    for (uint8_t k = 1; k <= 4; ++k) {
        entries[k] = host(k, 0);
        entries[k]->phyPortId = k == 4 ? 4 : 5;
    }
    inet_pton(AF_INET6, "fe80::1", entries[1]->lanHost.ipv6);
    entries[2]->lanHost.ip = 0;
    entries[3]->valid = 0;
    EXPECT_EQ(disableHostrixByPortIdx(9), -1);  // no LAN port has phy id 9
    EXPECT_TRUE(fake::state().commands.empty());
    EXPECT_EQ(disableHostrixByPortIdx(5), 0);
    EXPECT_EQ(fake::state().commands,
              (std::vector<std::string>{"/bin/arp -d 192.168.1.1",
                                        "/bin/ip -6 neigh del fe80::1 dev br0"}));
    EXPECT_EQ(entries[1]->lanHost.disConnect + entries[2]->lanHost.disConnect, 2);
    EXPECT_EQ(entries[3]->lanHost.disConnect, 0);
    EXPECT_EQ(entries[4]->valid, 1);
}

}  // namespace
