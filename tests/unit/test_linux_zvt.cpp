// The switch library on Linux where it needs no configuration: speed codes, station
// rate texts and the parts that answer "not available" for now.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "platform/linux/zvt_linux.h"
#include "platform/mib.h"
#include "platform/zvt.h"

namespace {

TEST(ZvtSpeedCode, KnownSpeedsAndOthers) {
    const struct {
        long mbps;
        int code;
    } cases[] = {{10, 0},   {100, 1}, {1000, 2}, {10000, 4},  {2500, 5},
                 {5000, 6}, {-1, -1}, {0, -1},   {20000, -1}, {25000, -1}};
    for (const auto &c : cases) EXPECT_EQ(zvtSpeedCode(c.mbps), c.code) << c.mbps << " Mb/s";
}

// A station record with the given rates, in a buffer one byte off alignment.
struct StationBuffer {
    unsigned char bytes[sizeof(wlStaInfo) + 1];
    const void *record() const { return bytes + 1; }
    StationBuffer(uint32_t txKbps, uint32_t rxKbps) {
        wlStaInfo station{};
        station.txRateKbps = txKbps;
        station.rxRateKbps = rxKbps;
        std::memcpy(bytes + 1, &station, sizeof station);
    }
};

std::string rateText(uint32_t kbps, int direction = 0) {
    StationBuffer station(direction == 0 ? kbps : 1, direction == 0 ? 1 : kbps);
    char text[16];
    EXPECT_EQ(zvt_wlan_get_sta_rate(station.record(), direction, text, sizeof text), 0);
    return text;
}

TEST(ZvtStationRate, MegabitsWithOneDecimalWhenNotWhole) {
    EXPECT_EQ(rateText(0), "0");
    EXPECT_EQ(rateText(1000), "1");
    EXPECT_EQ(rateText(5500), "5.5");
    EXPECT_EQ(rateText(54000), "54");
    EXPECT_EQ(rateText(866700), "866.7");
    EXPECT_EQ(rateText(1999), "1.9");
    EXPECT_EQ(rateText(4294967295u), "4294967.2");
    EXPECT_EQ(rateText(144400, 1), "144.4");  // the receive rate for direction 1
}

TEST(ZvtStationRate, BoundedBySize) {
    StationBuffer station(866700, 0);
    char text[8];
    std::memset(text, 'z', sizeof text);
    EXPECT_EQ(zvt_wlan_get_sta_rate(station.record(), 0, text, 3), 0);
    EXPECT_STREQ(text, "86");
    EXPECT_EQ(text[3], 'z');
}

TEST(ZvtStationRate, RefusesBadArguments) {
    StationBuffer station(1000, 1000);
    char text[16] = "keep";
    EXPECT_EQ(zvt_wlan_get_sta_rate(station.record(), 2, text, sizeof text), -1);
    EXPECT_EQ(zvt_wlan_get_sta_rate(nullptr, 0, text, sizeof text), -1);
    EXPECT_EQ(zvt_wlan_get_sta_rate(station.record(), 0, text, 0), -1);
    EXPECT_STREQ(text, "keep");
}

TEST(ZvtNotYetAvailable, ModeEmptyAndCountersAbsent) {
    char mode[9] = "stale";
    const unsigned char mac[6] = {2, 0, 0, 0, 0, 1};
    EXPECT_EQ(zvt_wlan_get_sta_wireless_mode("wlan0", mac, 1, mode), 0);
    EXPECT_STREQ(mode, "");
    uint64_t pair[2] = {7, 7};
    EXPECT_EQ(zvt_host_police_control_mib_counter_get(nullptr, pair), -1);
    EXPECT_EQ(zvt_fc_host_police_control_mib_counter_get(nullptr, pair), -1);
    EXPECT_EQ(pair[0], 7u);
}

}  // namespace
