#include <arpa/inet.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "hosts/liveness.h"
#include "root_fixture.h"

namespace {

constexpr uint32_t kLongIdle = 95;   // past the 90 s timeout
constexpr uint32_t kProbeIdle = 65;  // past the 60 s probing start only

class LivenessTest : public RootedTest {
protected:
    void SetUp() override {
        RootedTest::SetUp();
        setMaxLanHostNum(kHostPoolSize);
        snapshot = hostrixPath(HostrixFile::FcLutList);
        fake::state().onCommand = [this](const std::string &line) {
            if (line == "cat /proc/fc/sw_dump/l2 > " + snapshot) std::ofstream(snapshot) << "x\n";
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
    std::string grep(uint8_t k) const {
        return "cat " + snapshot + " | grep -A 1 \"02:00:00:00:00:0" + std::to_string(k) + "\"";
    }
    size_t ran(const std::string &line) const {
        const auto &all = fake::state().commands;
        return static_cast<size_t>(std::count(all.begin(), all.end(), line));
    }
    std::string snapshot;
};

TEST_F(LivenessTest, WirelessHostTimesOutWithoutAnyCommand) {
    hostEntry *entry = host(1, kLongIdle, CONNECTION_WIRELESS);
    invalidAgingOutHostrix();
    EXPECT_EQ(entry->lanHost.disConnect, 1);
    EXPECT_TRUE(fake::state().commands.empty());
}

struct FcCase {
    const char *name;
    const char *dump;  // what grep prints for the host
    int8_t valid;
};
class FcIdleTest : public LivenessTest, public ::testing::WithParamInterface<FcCase> {};

TEST_P(FcIdleTest, EngineIdleTimeDecidesAWiredTimeout) {
    hostEntry *entry = host(1, kLongIdle);
    fake::state().commandOutput[grep(1)] = GetParam().dump;
    invalidAgingOutHostrix();
    EXPECT_EQ(entry->valid, GetParam().valid);
}

INSTANTIATE_TEST_SUITE_P(Liveness, FcIdleTest,
                         ::testing::Values(FcCase{"Recent", "mac\nvid=1 Idle(s)=5\n", 1},
                                           FcCase{"AtTimeout", "mac\nIdle(s)=90\n", 0},
                                           FcCase{"Old", "mac\nIdle(s)=95\n", 0},
                                           FcCase{"OnMacLineOnly", "Idle(s)=5\n", 0},
                                           FcCase{"NotInDump", "", 0}),
                         CaseName());

TEST_F(LivenessTest, WiredHostsShareOneSnapshotRemovedAfterThePass) {
    hostEntry *kept = host(1, kLongIdle);
    hostEntry *gone = host(2, kLongIdle);
    fake::state().commandOutput[grep(1)] = "mac\nIdle(s)=5\n";
    invalidAgingOutHostrix();
    EXPECT_EQ(ran("cat /proc/fc/sw_dump/l2 > " + snapshot), 1u);
    EXPECT_EQ(ran(grep(1)) + ran(grep(2)), 2u);
    EXPECT_EQ(kept->valid, 1);
    EXPECT_EQ(gone->valid, 0);
    EXPECT_FALSE(std::filesystem::exists(snapshot));
}

TEST_F(LivenessTest, ProbingOpensWhenIdleAndClosesWhenActiveAgain) {
    hostEntry *entry = host(1, kProbeIdle);
    invalidAgingOutHostrix();
    EXPECT_EQ(entry->lanHost.arpReqIp, entry->lanHost.ip);
    EXPECT_EQ(entry->lanHost.arpRetryCnt, NET_INFO_ARP_RETRY);
    entry->updateTime = static_cast<uint32_t>(fake::state().monotonic.tv_sec);
    invalidAgingOutHostrix();
    EXPECT_EQ(entry->lanHost.arpReqIp, 0u);
    EXPECT_EQ(entry->lanHost.arpRetryCnt, 0u);
}

TEST_F(LivenessTest, HostWithoutIpv4IsNeverProbedAndTimesOut) {
    hostEntry *entry = host(1, kProbeIdle, CONNECTION_WIRELESS);
    entry->lanHost.ip = 0;
    invalidAgingOutHostrix();
    EXPECT_EQ(entry->lanHost.arpReqIp, 0u);
    fake::advanceSeconds(kLongIdle - kProbeIdle);
    invalidAgingOutHostrix();
    EXPECT_EQ(entry->valid, 0);
}

TEST_F(LivenessTest, DisconnectKeepsARunningSeriesAndClosesASpentOne) {
    hostEntry *running = host(1, kLongIdle, CONNECTION_WIRELESS);
    hostEntry *spent = host(2, kLongIdle, CONNECTION_WIRELESS);
    for (hostEntry *entry : {running, spent}) entry->lanHost.arpReqIp = entry->lanHost.ip;
    running->lanHost.arpRetryCnt = 2;
    invalidAgingOutHostrix();
    EXPECT_EQ(running->lanHost.arpReqIp, running->lanHost.ip);
    EXPECT_EQ(running->lanHost.arpRetryCnt, 2u);
    EXPECT_EQ(spent->lanHost.arpReqIp, 0u);
}

class LinkDownTest : public LivenessTest {
protected:
    void SetUp() override {
        LivenessTest::SetUp();
        fake::state().phyIds = {{"eth0.2", 4}, {"eth0.3", 5}};
    }
    hostEntry *onPort(uint8_t k, int8_t port, int8_t valid = 1) {
        hostEntry *entry = host(k, 0);
        entry->phyPortId = port;
        entry->valid = valid;
        return entry;
    }
};

TEST_F(LinkDownTest, UnknownPortDisconnectsNobody) {
    hostEntry *entry = onPort(1, 9);
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(disableHostrixByPortIdx(9), -1);
    EXPECT_NE(::testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(entry->valid, 1);
}

TEST_F(LinkDownTest, OnlineHostsOfThePortGoOfflineWithTheirNeighbours) {
    hostEntry *both = onPort(1, 5);
    inet_pton(AF_INET6, "fe80::1", both->lanHost.ipv6);
    hostEntry *none = onPort(2, 5);
    none->lanHost.ip = 0;
    hostEntry *offline = onPort(3, 5, 0);
    hostEntry *other = onPort(4, 4);
    EXPECT_EQ(disableHostrixByPortIdx(5), 0);
    EXPECT_EQ(fake::state().commands,
              (std::vector<std::string>{"/bin/arp -d 192.168.1.1",
                                        "/bin/ip -6 neigh del fe80::1 dev br0"}));
    EXPECT_EQ(both->lanHost.disConnect + none->lanHost.disConnect, 2);
    EXPECT_EQ(offline->lanHost.disConnect, 0);
    EXPECT_EQ(other->valid, 1);
}

}  // namespace
