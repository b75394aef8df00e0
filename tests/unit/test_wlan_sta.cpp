// The station snapshot of the ten wireless interfaces, and the link fields of a host.

#include "discovery/sources.h"
#include "discovery/wlan_sta.h"
#include "fixture.h"

namespace {

struct WlanStaTest : HostrixTest {
    static bool known(uint8_t k) { return is_wifi_station(localMac(k).data()); }
    static hostEntry *host(uint8_t k, const char *ifname, uint8_t type) {
        hostEntry *entry = addHost(localMac(k), ifname);
        entry->lanHost.connectionType = type;
        std::strcpy(entry->lanHost.negRxRate, "old");
        std::strcpy(entry->lanHost.negTxRate, "old");
        return entry;
    }
};

TEST_F(WlanStaTest, SnapshotKeepsAssociatedStationsOfLiveInterfacesFromPosition1) {
    for (uint8_t k = 1; k <= 4; ++k) fake::addStation("wlan0", localMac(k));
    std::vector<wlStaInfo> &list = fake::state().stations["wlan0"];
    list[0] = list[1];  // a live record where the driver's list never has one
    list[0].mac[5] = 0xee;
    list[2].inUse = 0;
    list[3].flags = 0x0003;
    fake::addStation("wlan1", localMac(5));
    fake::state().interfaces["wlan1"].flags = 0;  // down
    fake::addStation("wlan0-vap0", localMac(6));
    fake::state().commandOutput
        ["iwpriv wlan0-vap0 get_mib func_off | tail -n 1 | "
         "awk -F':' '{print $NF}' | sed 's/ //g'"] = "1\n";  // off
    for (uint8_t k = 10; k < 10 + 64; ++k) fake::addStation("wlan1-vap3", localMac(k));
    EXPECT_EQ(collectWlanStaInfo(), 0);
    EXPECT_STREQ(wlanStaTable[5].name, "wlan1");
    EXPECT_TRUE(known(1) && known(4) && known(10) && known(73));
    for (uint8_t k : {2, 3, 5, 6, 0xee}) EXPECT_FALSE(known(k)) << int{k};
    fake::state().stations["wlan1-vap3"].resize(3);
    collectWlanStaInfo();
    EXPECT_EQ(wlanStaTable[9].staNum, 2u);  // rebuilt, not appended
}

TEST_F(WlanStaTest, WiredHostGetsItsPortSpeedInBothRates) {
    fake::state().phyIds["eth0.3"] = 2;
    hostEntry *unreported = host(1, "eth0.3", CONNECTION_WIRED);
    updateStaInfo(unreported);  // the port reports nothing: the speed word stays 0
    EXPECT_STREQ(unreported->lanHost.negRxRate, "10");
    const char *texts[] = {"10", "100", "1000", "old", "10000", "2500", "5000", "old"};
    for (uint8_t code = 0; code < 8; ++code) {
        hostEntry *entry = host(code + 2, "eth0.3", CONNECTION_WIRED);
        fake::state().portSpeedCodes[2] = code;
        updateStaInfo(entry);
        EXPECT_EQ(std::string(entry->lanHost.negRxRate) + entry->lanHost.negTxRate,
                  std::string(texts[code]) + texts[code]);
    }
}

// The last slot that holds the MAC decides; an SSID change is reported after arrival.
TEST_F(WlanStaTest, StationGivesRatesSignalAndSsid) {
    fake::addStation("wlan0", localMac(1)).signal = 10;
    wlStaInfo &sta = fake::addStation("wlan1-vap1", localMac(1));
    sta.signal = 60;
    sta.txRateKbps = 866000;
    sta.rxRateKbps = 433000;
    collectWlanStaInfo();
    hostEntry *entry = host(1, "wlan0", CONNECTION_WIRELESS);
    updateStaInfo(entry);  // no configuration record for wlan0 yet: nothing changes
    EXPECT_STREQ(entry->lanHost.negTxRate, "old");
    fake::state().ssids["wlan0"] = "Home";
    for (uint8_t firstConnect : {1, 0}) {
        entry->lanHost.firstConnect = firstConnect;
        updateStaInfo(entry);
        EXPECT_EQ(entry->informChange, 0);  // new, or unchanged
    }
    EXPECT_EQ(std::string(entry->lanHost.negTxRate) + "/" + entry->lanHost.negRxRate, "866/433");
    EXPECT_EQ(entry->lanHost.rssi, -40);
    EXPECT_STREQ(entry->lanHost.ssidName, "Home");
    fake::state().ssids["wlan0"] = std::string(70, 's');
    updateStaInfo(entry);
    EXPECT_EQ(entry->informChange, 1);
    EXPECT_EQ(std::string(entry->lanHost.ssidName), std::string(62, 's'));

    hostEntry *stranger = host(9, "wlan0", CONNECTION_WIRELESS);  // in no station list
    updateStaInfo(stranger);
    EXPECT_EQ(std::string(stranger->lanHost.negTxRate) + stranger->lanHost.ssidName, "old");
}

}  // namespace
