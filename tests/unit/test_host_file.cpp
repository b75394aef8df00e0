#include <sys/stat.h>

#include "control/host_file.h"
#include "root_fixture.h"

namespace {

struct HostFileTest : RootedTest {
    // Slot SLOT online since START, MAC 02:00:00:00:00:SLOT.
    hostEntry &online(uint8_t slot, uint32_t start) {
        hostEntry &entry = hostPool[slot];
        std::copy_n(localMac(slot).begin(), 6, entry.lanHost.mac);
        entry.valid = 1;
        entry.startOnLine = start;
        return entry;
    }
    std::vector<lanHostInfo_t> records() const {
        std::string bytes = readText(hostrixPath(HostrixFile::HostInfo));
        std::vector<lanHostInfo_t> list(bytes.size() / kLanHostInfoSize);
        if (!list.empty()) std::memcpy(list.data(), bytes.data(), list.size() * kLanHostInfoSize);
        return list;
    }
};

// Longest online first, ties in slot order; hosts without an arrival time are refreshed
// but not written, departed hosts neither.
TEST_F(HostFileTest, OnlineHostsAreWrittenRefreshedLongestOnlineFirst) {
    fake::state().uptime = 5000;
    for (auto [slot, start] : {std::pair{0, 500}, {1, 100}, {2, 300}, {3, 100}})
        online(slot, start);
    hostEntry &noArrival = online(4, 0);
    online(5, 100).valid = 0;
    lanHostBw[2] = lanHostBw_t{0, 0, 11, 22, 333, 444};
    EXPECT_EQ(writeLanHostInfo(), 0);
    const std::vector<lanHostInfo_t> written = records();
    std::vector<int> slots;
    for (const lanHostInfo_t &record : written) slots.push_back(record.mac[5]);
    ASSERT_EQ(slots, (std::vector<int>{1, 3, 2, 0}));
    const lanHostInfo_t &record = written[2];
    EXPECT_EQ(
        std::tie(record.onLineTime, record.upRate, record.downRate, record.rxBytes, record.txBytes),
        std::make_tuple(4700u, 11u, 22u, 333u, 444u));
    EXPECT_EQ(std::pair(noArrival.lanHost.onLineTime, hostPool[5].lanHost.onLineTime),
              std::pair(5000u, 0u));
}

// Readers other than root may read it; a shrinking list leaves nothing behind.
TEST_F(HostFileTest, FileIsRewrittenInPlaceAndReadableByAll) {
    const mode_t previous = umask(022);
    writeLanHostInfo();
    umask(previous);
    EXPECT_TRUE(records().empty());
    for (uint8_t slot = 0; slot < 5; ++slot) online(slot, 100);
    writeLanHostInfo();
    for (uint8_t slot = 2; slot < 5; ++slot) hostPool[slot].valid = 0;
    writeLanHostInfo();
    struct stat info {};
    ASSERT_EQ(stat(hostrixPath(HostrixFile::HostInfo), &info), 0);
    EXPECT_EQ(std::pair(info.st_size, info.st_mode & 0777), std::pair(off_t{1888}, 0644u));
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
    for (std::string line :
         {"[Hostrix]:" + std::string(48, '=') + "\n[Hostrix]:Mac     ",
          std::string("Mac              : 02-00-00-00-00-02\n"),
          std::string("IP               : c0a80102\n"),
          std::string("IPv6                : fe80::1\n"),
          std::string("rssi             : -40\n[Hostrix]:" + std::string(49, '=') + "\n")})
        EXPECT_NE(out.find(line), std::string::npos) << line;
}

}  // namespace
