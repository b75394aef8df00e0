#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <tuple>

#include "control/host_file.h"
#include "reader_lock.h"
#include "root_fixture.h"

namespace {

class HostFileTest : public RootedTest {
protected:
    // Slot SLOT online since START, MAC 02:00:00:00:00:SLOT.
    hostEntry &online(uint8_t slot, uint32_t start) {
        hostEntry &entry = hostPool[slot];
        entry.lanHost.mac[0] = 2;
        entry.lanHost.mac[5] = slot;
        entry.valid = 1;
        entry.startOnLine = start;
        return entry;
    }
    std::vector<lanHostInfo_t> records() const {
        std::string bytes = readText(hostrixPath(HostrixFile::HostInfo));
        EXPECT_EQ(bytes.size() % kLanHostInfoSize, 0u);
        std::vector<lanHostInfo_t> list(bytes.size() / kLanHostInfoSize);
        if (!list.empty()) std::memcpy(list.data(), bytes.data(), list.size() * kLanHostInfoSize);
        return list;
    }
    std::vector<int> slots() const {
        std::vector<int> list;
        for (const lanHostInfo_t &record : records()) list.push_back(record.mac[5]);
        return list;
    }
};

TEST_F(HostFileTest, LongestOnlineFirstAndTiesKeepSlotOrder) {
    online(0, 500);
    online(1, 100);
    online(2, 300);
    online(3, 100);
    EXPECT_EQ(writeLanHostInfo(), 0);
    EXPECT_EQ(slots(), (std::vector<int>{1, 3, 2, 0}));
}

TEST_F(HostFileTest, OnlyOnlineHostsWithAnArrivalTimeAreWrittenRefreshed) {
    fake::state().uptime = 5000;
    hostEntry &noArrival = online(1, 0);
    hostEntry &departed = online(2, 100);
    departed.valid = 0;
    online(3, 4000);
    lanHostBw[3] = lanHostBw_t{0, 0, 11, 22, 333, 444};
    writeLanHostInfo();
    ASSERT_EQ(slots(), std::vector<int>{3});
    lanHostInfo_t record = records()[0];
    EXPECT_EQ(record.onLineTime, 1000u);
    EXPECT_EQ(std::tie(record.upRate, record.downRate, record.rxBytes, record.txBytes),
              std::make_tuple(11u, 22u, 333u, 444u));
    EXPECT_EQ(noArrival.lanHost.onLineTime, 5000u);  // refreshed though not written
    EXPECT_EQ(departed.lanHost.onLineTime, 0u);
}

TEST_F(HostFileTest, FileIsRewrittenNotAppended) {
    writeLanHostInfo();
    EXPECT_TRUE(records().empty());
    for (uint8_t slot = 0; slot < 5; ++slot) online(slot, 100);
    writeLanHostInfo();
    for (uint8_t slot = 2; slot < 5; ++slot) hostPool[slot].valid = 0;
    writeLanHostInfo();
    EXPECT_EQ(std::filesystem::file_size(hostrixPath(HostrixFile::HostInfo)), 1888u);
}

// A reader's lock does not hold the writer: it skips the write, says so once for the
// whole episode, and writes at the first call after the reader has let go.
TEST_F(HostFileTest, WriterSkipsWhileAReaderHoldsTheLock) {
    online(1, 100);
    writeLanHostInfo();
    online(2, 200);
    ReaderLock reader(hostrixPath(HostrixFile::HostInfo));
    ASSERT_TRUE(reader.locked());
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(writeLanHostInfo(), kHostFileBusy);
    EXPECT_EQ(writeLanHostInfo(), kHostFileBusy);
    std::string whileLocked = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(slots(), std::vector<int>{1});
    reader.letGo();
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(writeLanHostInfo(), 0);
    std::string afterwards = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(slots(), (std::vector<int>{1, 2}));
    EXPECT_EQ(std::count(whileLocked.begin(), whileLocked.end(), '\n'), 1) << whileLocked;
    EXPECT_NE(whileLocked.find("locked by a reader"), std::string::npos) << whileLocked;
    EXPECT_NE(afterwards.find("free again"), std::string::npos) << afterwards;
}

TEST_F(HostFileTest, DumpPrintsLabelledLinesOnlyWithTheCommandGroup) {
    hostEntry &entry = online(2, 100);
    entry.lanHost.ip = htonl(0xc0a80102);
    inet_pton(AF_INET6, "fe80::1", entry.lanHost.ipv6);
    entry.lanHost.rssi = -40;
    ::testing::internal::CaptureStdout();
    dumpLanHostInfo(&entry);
    dbg_level = DBG_COMMAND;
    dumpLanHostInfo(&entry);
    std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 30);
    EXPECT_EQ(out.rfind("[Hostrix]:" + std::string(48, '=') +
                            "\n[Hostrix]:Mac              : "
                            "02-00-00-00-00-02\n",
                        0),
              0u);
    for (const char *line :
         {"[Hostrix]:IP               : c0a80102\n", "[Hostrix]:IPv6                : fe80::1\n",
          "[Hostrix]:rssi             : -40\n"})
        EXPECT_NE(out.find(line), std::string::npos) << line;
    EXPECT_TRUE(out.ends_with("[Hostrix]:" + std::string(49, '=') + "\n"));
}

}  // namespace
