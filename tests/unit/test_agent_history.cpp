// The history database: what is written comes back after a restart, and sessions close
// by their start.
#include <gtest/gtest.h>

#include "history.h"
#include "temp_dir.h"

namespace {

TEST(HistoryTest, WritesComeBackAfterAReopen) {
    TempDir dir;
    const std::string path = dir.file("var/lib/hostrix/history.db");  // folders made on the way
    const std::string mac = "0a:00:00:00:00:01";
    {
        History history;
        ASSERT_TRUE(history.open(path));
        DeviceRow row{mac, 100, 200, "", "phone", "dhcp", true, "android",
                      "10.0.0.2", "", "eth0.2", "0a:00:00:00:00:09"};
        FingerprintRow print{mac, {{}, "", "ff:01", "", {1, 3, 6}}, 150};
        ASSERT_TRUE(
            history.write({row}, {print}, {{mac, 100, {}}, {mac, 100, 180}, {mac, 190, {}}}));
        row.lastSeen = 300;
        ASSERT_TRUE(history.write({row}, {}, {}));  // a later batch replaces the row
    }
    History again;
    ASSERT_TRUE(again.open(path));
    std::optional<DeviceRow> row = again.device(mac);
    ASSERT_TRUE(row);
    EXPECT_EQ(std::tuple(row->firstSeen, row->lastSeen, row->randomMac, row->linkedTo, row->vendor),
              std::tuple(100, 300, true, "0a:00:00:00:00:09", ""));
    EXPECT_EQ(again.devicesSeenSince(301).size(), 0u);
    std::vector<FingerprintRow> prints = again.fingerprintsSince(0);
    ASSERT_EQ(prints.size(), 1u);
    EXPECT_EQ(std::tuple(prints[0].dhcp.options, prints[0].dhcp.clientId),
              std::tuple(std::vector<uint8_t>{1, 3, 6}, "ff:01"));
    std::vector<SessionChange> open = again.openSessions();  // the closed one is not
    ASSERT_EQ(open.size(), 1u);
    EXPECT_EQ(open[0].from, 190);
}

}  // namespace
