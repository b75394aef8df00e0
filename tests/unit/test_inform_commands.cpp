#include "ctrl_request.h"
#include "hosts/liveness.h"

namespace {

struct InformTest : HostrixTest {
    static hostEntry *arrived(uint8_t last) {
        hostEntry *entry = addHost(checkedMac(last));
        entry->lanHost.firstConnect = 1;
        return entry;
    }

    // An arrival that left before any query: it is reported only as a departure.
    static hostEntry *departed(uint8_t last, uint8_t access = kInternetAccessDefault) {
        hostEntry *entry = arrived(last);
        entry->lanHost.internetAccess = access;
        _disConnLanHost(entry, "test", __LINE__);
        return entry;
    }

    static ctrlMsg_t query(uint32_t cmd) { return dispatched(ctrlRequest(cmd)); }

    static lanHostInfo_t record(const ctrlMsg_t &msg, size_t index) {
        lanHostInfo_t host;
        std::memcpy(&host, msg.data + index * kLanHostInfoSize, sizeof host);
        return host;
    }

    static size_t recordCount(const ctrlMsg_t &msg) {
        size_t n = 0;
        while ((n + 1) * kLanHostInfoSize <= kCtrlDataSize &&
               !allZero(msg.data + n * kLanHostInfoSize, kLanHostInfoSize))
            ++n;
        return n;
    }
};

// The first departure report's recycling sweep also frees the second departed
// host, which is therefore never reported.
TEST_F(InformTest, DeparturesFollowArrivalsInOneReply) {
    departed(1);
    departed(2);
    for (uint8_t i = 3; i <= 5; ++i) arrived(i);
    departed(6)->lanHost.firstConnect = 1;  // an arrival not yet reported is no departure
    ctrlMsg_t msg = query(CMD_GET_NEW_DEVICE | CMD_GET_LEAVE_DEVICE);
    EXPECT_EQ(recordCount(msg), 4u);
    for (size_t i = 0; i < 3; ++i) EXPECT_EQ(record(msg, i).firstConnect, 1);
    EXPECT_EQ(record(msg, 3).disConnect, 1);
    EXPECT_EQ(recordMac(msg, 3), checkedMac(2));  // slot 254 before slot 255
    EXPECT_EQ(getHostrixByMac(checkedMac(1).data()), nullptr);
    EXPECT_EQ(lanHostNum, 4u);
}

// Each query refreshes the record it sends and consumes its flag. A blocked host's
// entry outlives its departure report with its connection data cleared.
TEST_F(InformTest, EveryQueryRefreshesTheRecordAndConsumesItsFlag) {
    hostEntry *hosts[] = {arrived(1), departed(2, kInternetAccessBlocked), addHost(checkedMac(3))};
    hosts[2]->informChange = 1;
    hostEntry *left = hosts[1];
    lanHostInfo_t &kept = left->lanHost;
    std::strcpy(kept.devName, "laptop");
    std::strcpy(kept.latestActiveTime, "2026:1:1:0:0:0");
    kept.devType = kept.controlled = kept.phy_port = 3;
    kept.otherAccess = 1;
    left->informChange = left->phyPortId = 1;
    left->idleSecs = left->updateTime = 9;
    fake::state().uptime = 5000;
    const uint32_t cmds[] = {CMD_GET_NEW_DEVICE, CMD_GET_LEAVE_DEVICE, CMD_GET_INFORM_CHANGE};
    for (size_t i = 0; i < 3; ++i) {
        hosts[i]->lanHost.ip = htonl(0xc0a80114);
        hosts[i]->startOnLine = 4000;
        lanHostBw[hostSlot(hosts[i])] = {0, 0, 11, 22, 333, 444};
        ctrlMsg_t msg = query(cmds[i]);
        EXPECT_EQ(recordCount(msg), 1u) << cmds[i];
        const lanHostInfo_t sent = record(msg, 0);
        EXPECT_EQ(std::tuple(sent.ip, sent.onLineTime, sent.upRate, sent.downRate, sent.rxBytes,
                             sent.txBytes),
                  std::tuple(htonl(0xc0a80114), 1000u, 11u, 22u, 333u, 444u))
            << cmds[i];
        EXPECT_EQ(recordCount(query(cmds[i])), 0u) << cmds[i];
    }
    ASSERT_EQ(getHostrixByMac(checkedMac(2).data()), left);
    EXPECT_EQ(kept.ip + kept.upRate + kept.downRate + kept.rxBytes + kept.txBytes, 0u);
    EXPECT_EQ(kept.disConnectTime[0] + kept.latestActiveTime[0] + kept.phy_port, 0);
    EXPECT_EQ(left->startOnLine + left->updateTime + left->idleSecs, 0u);
    EXPECT_EQ(left->phyPortId + left->informChange + kept.firstConnect + kept.disConnect, 0);
    EXPECT_EQ(std::tuple(std::string(kept.devName), kept.devType, kept.controlled,
                         kept.internetAccess, kept.otherAccess),
              std::tuple("laptop", 3, 3, 0, 1));
}

}  // namespace
