// The switch library on Linux: speed codes, station rate texts, and the port ids and
// link state that come from the configuration file and sysfs.
#include "linux_test_support.h"
#include "platform/linux/zvt_linux.h"
#include "platform/zvt.h"

namespace {

TEST(ZvtSpeedCode, KnownSpeedsAndOthers) {
    const std::pair<long, int> cases[] = {{10, 0},   {100, 1}, {1000, 2}, {10000, 4},  {2500, 5},
                                          {5000, 6}, {-1, -1}, {0, -1},   {20000, -1}, {25000, -1}};
    for (const auto &[mbps, code] : cases) EXPECT_EQ(zvtSpeedCode(mbps), code) << mbps << " Mb/s";
}

// Rates in kb/s as Mb/s text, read from a station record one byte off alignment.
TEST(ZvtStationRate, MegabitsWithOneDecimalWhenNotWhole) {
    const std::pair<uint32_t, const char *> cases[] = {{0, "0"},      {1000, "1"},
                                                       {5500, "5.5"}, {866700, "866.7"},
                                                       {1999, "1.9"}, {4294967295u, "4294967.2"}};
    unsigned char bytes[sizeof(wlStaInfo) + 1];
    wlStaInfo station{};
    station.rxRateKbps = 144400;
    char text[16];
    for (const auto &[kbps, expected] : cases) {
        station.txRateKbps = kbps;
        std::memcpy(bytes + 1, &station, sizeof station);
        EXPECT_EQ(zvt_wlan_get_sta_rate(bytes + 1, 0, text, sizeof text), 0);
        EXPECT_STREQ(text, expected);
    }
    EXPECT_EQ(zvt_wlan_get_sta_rate(bytes + 1, 1, text, sizeof text), 0);  // the receive rate
    EXPECT_STREQ(text, "144.4");
    std::memset(text, 'z', sizeof text);
    EXPECT_EQ(zvt_wlan_get_sta_rate(bytes + 1, 0, text, 3), 0);  // bounded by the size
    EXPECT_STREQ(text, "42");
    EXPECT_EQ(text[3], 'z');
    EXPECT_EQ(zvt_wlan_get_sta_rate(bytes + 1, 2, text, sizeof text), -1);
    EXPECT_EQ(zvt_wlan_get_sta_rate(nullptr, 0, text, sizeof text), -1);
    EXPECT_EQ(zvt_wlan_get_sta_rate(bytes + 1, 0, text, 0), -1);
    EXPECT_STREQ(text, "42");  // untouched by the refused calls
}

class ZvtPorts : public HostrixRootTest {};

TEST_F(ZvtPorts, IdsAndLinkOfTheConfiguredPorts) {
    writeConfig(
        "lan_ports = eth0.2 eth0.3\nphy.eth0.2 = 5\nlogic.eth0.2 = 1\n"
        "phy.eth0.4 = 9\nphy.lo = 3\n");
    EXPECT_EQ(zvt_lan_phyID_get_by_if_name("eth0.2"), 5);
    EXPECT_EQ(zvt_lan_LogID_get_by_if_name("eth0.2"), 1);
    EXPECT_EQ(zvt_lan_LogID_get_by_if_name("eth0.3"), -1);
    EXPECT_EQ(zvt_lan_phyID_get_by_if_name(nullptr), -1);
    // By index: eth0.3 has no phy id; there is no third port, though eth0.4 is the default.
    const int phyOfIndex[] = {-1, 5, -1, -1, -1, -1};
    for (int i = -1; i <= 4; ++i) EXPECT_EQ(zvt_port_get_lan_phyID(i), phyOfIndex[i + 1]) << i;
    int link = 7, speed = 7, duplex = 7;
    EXPECT_EQ(zv_port_link_get(3, &link), -1);  // lo has a phy id but is no LAN port
    EXPECT_EQ(zv_port_speedDuplex_get(-1, &speed, &duplex), -1);
    EXPECT_EQ(std::pair(link, speed), std::pair(7, 7));
    int carrier = -1;
    std::ifstream("/sys/class/net/lo/carrier") >> carrier;
    if (carrier < 0) GTEST_SKIP() << "the kernel gives no carrier state for lo here";
    writeConfig("lan_ports = lo\nphy.lo = 3\n");
    EXPECT_EQ(zv_port_link_get(3, &link), 0);
    EXPECT_EQ(link, carrier);
}

}  // namespace
