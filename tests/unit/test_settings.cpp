#include <array>
#include <cstring>
#include <string>

#include "fixture.h"
#include "sniffer/sniffer.h"
#include "traffic/bandwidth.h"

namespace {

class SettingsTest : public HostrixTest {
protected:
    AppliedSettings applied;
};

TEST_F(SettingsTest, DirectSettingsKeepDefaultsWhenUnreadable) {
    fake::state().settings = {{MIB_DBG_LEVEL, 0x800}, {MIB_IDLE_TIMEOUT, 20}};
    readDirectSettings();
    EXPECT_EQ(dbg_level, 0x800u);
    EXPECT_EQ((std::array{NET_INFO_ARP_INTERVAL, NET_INFO_AGEOUT_TIME, NET_INFO_ARP_RETRY,
                          NET_INFO_FDB_IDLE_MAX, NET_INFO_IDLE_TIMEOUT}),
              (std::array<uint32_t, 5>{20, 60, 3, 90, 20}));
}

// The enable flag is read as one byte: 0x101 arrives as 1.
TEST_F(SettingsTest, ChangedLimitsAreApplied) {
    fake::state().settings = {{MIB_MAX_LAN_HOST_NUM, 32},
                              {MIB_MAX_CONTROLLED_NUM, 8},
                              {MIB_BANDWIDTH_ENABLE, 0x101},
                              {MIB_BANDWIDTH_INTERVAL, 10}};
    applyChangedSettings(applied);
    EXPECT_EQ(maxLanHostNum, 32u);
    EXPECT_EQ(maxControlledNum, 8u);
    EXPECT_EQ(applied.bandwidthEnable, 1);
    EXPECT_EQ(bandwidthInterval, 10u);
}

// A limit is applied when its stored value changes, not again while it stays: after
// the table's limit changed by another way, the same stored value leaves it alone.
TEST_F(SettingsTest, RejectedLimitIsRememberedAndUnchangedOneNotReapplied) {
    fake::state().settings = {{MIB_MAX_LAN_HOST_NUM, 300}};
    applyChangedSettings(applied);
    EXPECT_EQ(maxLanHostNum, 0u);
    EXPECT_EQ(applied.maxLanHostNum, 300u);
    fake::state().settings = {{MIB_MAX_LAN_HOST_NUM, 4}};
    applyChangedSettings(applied);
    setMaxLanHostNum(9);
    applyChangedSettings(applied);
    EXPECT_EQ(maxLanHostNum, 9u);
}

// The USR1 line is logged with the flags in force before the reload (a FIFO-set trace
// flag), the mask line with the reloaded ones (no trace).
TEST_F(SettingsTest, ReloadReadsLevelsMaskAndLimitsInOrder) {
    dbg_level = DBG_TRACE;
    fake::state().settings = {{MIB_DBG_LEVEL, DBG_SNIFFER_VERBOSE}, {MIB_MAX_LAN_HOST_NUM, 64}};
    fake::state().wanChain = {fake::wanChainRecord(1, 0, 0x3)};
    ::testing::internal::CaptureStdout();
    reloadSettings(applied);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "[Hostrix]:receive USR1 signal and processing....\n");
    EXPECT_EQ(dbg_level, DBG_SNIFFER_VERBOSE);
    EXPECT_EQ(snifferLogLevel(), 7u);
    EXPECT_EQ(bridge_bind_logic_port_mask, 0x3u);
    EXPECT_EQ(maxLanHostNum, 64u);
}

// Disabled and routed connections add nothing; the bridged ones' masks are OR-ed whole.
TEST_F(SettingsTest, BridgeMaskCountsOnlyEnabledBridgedConnections) {
    fake::state().wanChain = {fake::wanChainRecord(0, 0, 0x1), fake::wanChainRecord(1, 1, 0x2),
                              fake::wanChainRecord(1, 0, 0x8),
                              fake::wanChainRecord(7, 0, 0x80000004u)};
    EXPECT_EQ(getBridgeBindPortMask(), 0x8000000cu);
}

TEST_F(SettingsTest, FifoCommandSetsTheDebugFlags) {
    const struct {
        const char *text;
        uint32_t before, after;
        bool printed;
    } cases[] = {
        {"hello log 2\n", 0, 2, true},      {"log", 5, 5, false},
        {"no command here", 5, 5, false},   {"log 010", 0, 8, true},
        {"log abc", 5, 0, true},            {"log 3 log 4", 0, 3, true},
        {"\n\nlog\n0x11\n", 0, 0x11, true}, {"log 0x1ffffffff", 0, 0xffffffffu, true},
    };
    for (const auto &c : cases) {
        dbg_level = c.before;
        std::string text = c.text;
        ::testing::internal::CaptureStdout();
        EXPECT_EQ(fifoCmdParse(text.data()), 0);
        std::string out = ::testing::internal::GetCapturedStdout();
        EXPECT_EQ(dbg_level, c.after) << c.text;
        char expected[32];
        std::snprintf(expected, sizeof expected, "dbg_level=0x%x\n", c.after);
        EXPECT_EQ(out, c.printed ? std::string(expected) : std::string()) << c.text;
    }
}

}  // namespace
