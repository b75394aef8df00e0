// The switch library on Linux: speed codes and station rate texts.
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
    EXPECT_EQ(zvt_wlan_get_sta_rate(bytes + 1, 0, text, 0), -1);  // no room even for the end
    EXPECT_STREQ(text, "42");
}

}  // namespace
