#include <cstring>
#include <string>

#include "discovery/sources.h"
#include "discovery/wlan_sta.h"
#include "fixture.h"

namespace {

std::string funcoffCommand(const std::string &ifname) {
    return "iwpriv " + ifname +
           " get_mib func_off | tail -n 1 | awk -F':' '{print $NF}' | sed 's/ //g'";
}

wlStaInfo station(uint8_t k, uint16_t inUse = 1, uint16_t flags = kStaAssociated,
                  uint8_t signal = 60) {
    wlStaInfo sta{};
    sta.inUse = inUse;
    sta.mac[0] = 2;
    sta.mac[5] = k;
    sta.flags = flags;
    sta.signal = signal;
    sta.txRateKbps = 866000;
    sta.rxRateKbps = 433000;
    return sta;
}

class WlanStaTest : public HostrixTest {
protected:
    void SetUp() override {
        HostrixTest::SetUp();
        setMaxLanHostNum(kHostPoolSize);
    }
    // An interface that is up with STATIONS after the unused position 0.
    static void serve(const std::string &ifname, std::vector<wlStaInfo> stations) {
        fake::state().interfaces[ifname].flags = 1;
        stations.insert(stations.begin(), station(0xee));
        fake::state().stations[ifname] = stations;
    }
    static bool known(uint8_t k) { return is_wifi_station(fake::mac(2, 0, 0, 0, 0, k).data()); }
};

TEST_F(WlanStaTest, SlotNamesFollowTheRadioRoots) {
    char name[kWlanIfnameLen + 1];
    wlanSlotName(1, 0, name);
    EXPECT_STREQ(name, "wlan1");
    wlanSlotName(0, 4, name);
    EXPECT_STREQ(name, "wlan0-vap3");
    fake::state().wlanRoots[0] = "wlan0123456789";
    fake::refreshPortTables();
    wlanSlotName(0, 1, name);
    EXPECT_STREQ(name, "wlan0123456789-v");
}

TEST_F(WlanStaTest, SnapshotKeepsAssociatedStationsOfLiveInterfaces) {
    serve("wlan0", {station(1), station(2, 0), station(3, 1, 0x0003), station(4)});
    serve("wlan1", {station(5)});
    fake::state().interfaces["wlan1"].flags = 0;
    serve("wlan0-vap0", {station(6)});
    fake::state().commandOutput[funcoffCommand("wlan0-vap0")] = "1\n";
    EXPECT_EQ(collectWlanStaInfo(), 0);
    EXPECT_STREQ(wlanStaTable[5].name, "wlan1");
    EXPECT_EQ(wlanStaTable[0].staNum, 2u);
    EXPECT_TRUE(known(1));
    EXPECT_TRUE(known(4));
    for (uint8_t k : {2, 3, 5, 6, 0xee}) EXPECT_FALSE(known(k)) << int{k};
}

TEST_F(WlanStaTest, AtMost64StationsFromPosition1) {
    std::vector<wlStaInfo> all;
    for (int k = 1; k <= 65; ++k) all.push_back(station(static_cast<uint8_t>(k)));
    serve("wlan1-vap3", all);
    collectWlanStaInfo();
    EXPECT_EQ(wlanStaTable[9].staNum, 64u);
    EXPECT_TRUE(known(1));
    EXPECT_TRUE(known(64));
    EXPECT_FALSE(known(0xee));
    // A second collection rebuilds rather than appends.
    fake::state().stations["wlan1-vap3"].resize(3);
    collectWlanStaInfo();
    EXPECT_EQ(wlanStaTable[9].staNum, 2u);
}

struct FuncoffCase {
    const char *name;
    const char *output;
    int off;
};
class FuncoffTest : public WlanStaTest, public ::testing::WithParamInterface<FuncoffCase> {};

TEST_P(FuncoffTest, LeadingNumberOfTheFirstLine) {
    fake::state().commandOutput[funcoffCommand("wlan0")] = GetParam().output;
    EXPECT_EQ(checkWlanFuncoff("wlan0"), GetParam().off);
}

INSTANTIATE_TEST_SUITE_P(WlanSta, FuncoffTest,
                         ::testing::Values(FuncoffCase{"Zero", "0\n", 0},
                                           FuncoffCase{"One", "1\n", 1},
                                           FuncoffCase{"Two", "2abc\n", 1},
                                           FuncoffCase{"Empty", "", 0},
                                           FuncoffCase{"Text", "off\n", 0},
                                           FuncoffCase{"SecondLine", "\n1\n", 0}),
                         CaseName());

// ---- updateStaInfo ----

struct SpeedCase {
    const char *name;
    int code;  // -1: the port reports nothing
    const char *text;
};
class WiredSpeedTest : public WlanStaTest, public ::testing::WithParamInterface<SpeedCase> {};

TEST_P(WiredSpeedTest, PortSpeedBecomesBothRates) {
    hostEntry *entry = addHost(fake::mac(2, 0, 0, 0, 0, 1), "eth0.3");
    std::strcpy(entry->lanHost.negRxRate, "old");
    std::strcpy(entry->lanHost.negTxRate, "old");
    fake::state().phyIds["eth0.3"] = 2;
    if (GetParam().code >= 0) fake::state().portSpeedCodes[2] = GetParam().code;
    EXPECT_EQ(updateStaInfo(entry), 0);
    EXPECT_STREQ(entry->lanHost.negRxRate, GetParam().text);
    EXPECT_STREQ(entry->lanHost.negTxRate, GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(WlanSta, WiredSpeedTest,
                         ::testing::Values(SpeedCase{"Code0", 0, "10"},
                                           SpeedCase{"Code4", 4, "10000"},
                                           SpeedCase{"Code5", 5, "2500"},
                                           SpeedCase{"Code6", 6, "5000"},
                                           SpeedCase{"Code3Keeps", 3, "old"},
                                           SpeedCase{"Code7Keeps", 7, "old"},
                                           SpeedCase{"NoReportIs10", -1, "10"}),
                         CaseName());

class WirelessUpdateTest : public WlanStaTest {
protected:
    void SetUp() override {
        WlanStaTest::SetUp();
        fake::state().ssids["wlan0"] = "Home";
        serve("wlan0", {station(1)});
        collectWlanStaInfo();
        entry = addHost(fake::mac(2, 0, 0, 0, 0, 1), "wlan0");
        entry->lanHost.connectionType = CONNECTION_WIRELESS;
    }
    hostEntry *entry = nullptr;
};

TEST_F(WirelessUpdateTest, StationGivesRatesSignalAndSsid) {
    updateStaInfo(entry);
    EXPECT_STREQ(entry->lanHost.negTxRate, "866");
    EXPECT_STREQ(entry->lanHost.negRxRate, "433");
    EXPECT_EQ(entry->lanHost.rssi, -40);
    EXPECT_STREQ(entry->lanHost.ssidName, "Home");
    EXPECT_EQ(entry->informChange, 1);
}

TEST_F(WirelessUpdateTest, SsidChangeIsReportedOnlyAfterArrival) {
    entry->lanHost.firstConnect = 1;
    updateStaInfo(entry);
    EXPECT_STREQ(entry->lanHost.ssidName, "Home");
    EXPECT_EQ(entry->informChange, 0);
    entry->lanHost.firstConnect = 0;
    updateStaInfo(entry);
    EXPECT_EQ(entry->informChange, 0);  // unchanged SSID
    const std::string longSsid(70, 's');
    fake::state().ssids["wlan0"] = longSsid;
    updateStaInfo(entry);
    EXPECT_EQ(entry->informChange, 1);
    EXPECT_EQ(std::string(entry->lanHost.ssidName), longSsid.substr(0, 62));
}

TEST_F(WirelessUpdateTest, UnknownStationOrConfigKeepsFields) {
    std::strcpy(entry->lanHost.negTxRate, "old");
    fake::state().ssids.clear();  // the configuration record cannot be read
    updateStaInfo(entry);
    EXPECT_STREQ(entry->lanHost.negTxRate, "old");
    EXPECT_EQ(entry->lanHost.rssi, 0);
    fake::state().ssids["wlan0"] = "Home";
    hostEntry *stranger = addHost(fake::mac(2, 0, 0, 0, 0, 9), "wlan0");  // in no list
    stranger->lanHost.connectionType = CONNECTION_WIRELESS;
    std::strcpy(stranger->lanHost.negRxRate, "old");
    stranger->lanHost.rssi = -55;
    updateStaInfo(stranger);
    EXPECT_STREQ(stranger->lanHost.negRxRate, "old");
    EXPECT_EQ(stranger->lanHost.rssi, -55);
    EXPECT_STREQ(stranger->lanHost.ssidName, "");
}

}  // namespace
