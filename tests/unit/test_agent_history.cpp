// The history database: what is written comes back after a restart, sessions close
// by their start, and a broken file leaves the agent in memory.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "history.h"

namespace {

class HistoryTest : public testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/hostrix-history-test-XXXXXX";
        dir_ = mkdtemp(pattern);
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }
    std::string dir_;
};

TEST_F(HistoryTest, WritesComeBackAfterAReopen) {
    const std::string path = dir_ + "/var/lib/hostrix/history.db";  // folders made on the way
    {
        History history;
        ASSERT_TRUE(history.open(path));
        DeviceRow row{"0a:00:00:00:00:01", 100, 200, "", "phone", "dhcp", true, "android",
                      "10.0.0.2", "", "eth0.2", "0a:00:00:00:00:09"};
        FingerprintRow print{"0a:00:00:00:00:01", {}, 150};
        print.dhcp.clientId = "ff:01";
        print.dhcp.options = {1, 3, 6};
        ASSERT_TRUE(history.write({row}, {print},
                                  {{row.mac, 100, std::nullopt}, {row.mac, 100, 180},
                                   {row.mac, 190, std::nullopt}}));
        row.lastSeen = 300;
        ASSERT_TRUE(history.write({row}, {}, {}));  // a later batch replaces the row
    }
    History again;
    ASSERT_TRUE(again.open(path));
    std::optional<DeviceRow> row = again.device("0a:00:00:00:00:01");
    ASSERT_TRUE(row);
    EXPECT_EQ(row->firstSeen, 100);
    EXPECT_EQ(row->lastSeen, 300);
    EXPECT_TRUE(row->randomMac);
    EXPECT_EQ(row->linkedTo, "0a:00:00:00:00:09");
    EXPECT_EQ(row->vendor, "");
    EXPECT_EQ(again.devicesSeenSince(301).size(), 0u);
    std::vector<FingerprintRow> prints = again.fingerprintsSince(0);
    ASSERT_EQ(prints.size(), 1u);
    EXPECT_EQ(prints[0].dhcp.options, (std::vector<uint8_t>{1, 3, 6}));
    EXPECT_EQ(prints[0].dhcp.clientId, "ff:01");
    std::vector<SessionChange> open = again.openSessions();  // the closed one is not
    ASSERT_EQ(open.size(), 1u);
    EXPECT_EQ(open[0].from, 190);
}

TEST_F(HistoryTest, ABrokenFileLeavesTheHistoryInMemory) {
    const std::string corrupt = dir_ + "/corrupt.db";
    std::ofstream(corrupt) << std::string(8192, 'x');
    History history;
    EXPECT_FALSE(history.open(corrupt));
    EXPECT_FALSE(history.usable());
    DeviceRow row;
    row.mac = "0a:00:00:00:00:01";
    EXPECT_FALSE(history.write({row}, {}, {}));
    EXPECT_FALSE(history.device("0a:00:00:00:00:01"));
    History unwritable;
    EXPECT_FALSE(unwritable.open("/proc/hostrix-history.db"));
}

}  // namespace
