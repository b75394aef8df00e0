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
    EXPECT_EQ(NET_INFO_IDLE_TIMEOUT, 20u);
    EXPECT_EQ(NET_INFO_ARP_INTERVAL, 20u);
    EXPECT_EQ(NET_INFO_AGEOUT_TIME, 60u);
    EXPECT_EQ(NET_INFO_ARP_RETRY, 3u);
    EXPECT_EQ(NET_INFO_FDB_IDLE_MAX, 90u);
}

TEST_F(SettingsTest, ChangedLimitsAreApplied) {
    fake::state().settings = {{MIB_MAX_LAN_HOST_NUM, 32},
                              {MIB_MAX_CONTROLLED_NUM, 8},
                              {MIB_BANDWIDTH_ENABLE, 1},
                              {MIB_BANDWIDTH_INTERVAL, 10}};
    applyChangedSettings(applied);
    EXPECT_EQ(maxLanHostNum, 32u);
    EXPECT_EQ(maxControlledNum, 8u);
    EXPECT_EQ(applied.bandwidthEnable, 1);
    EXPECT_EQ(bandwidthInterval, 10u);
}

TEST_F(SettingsTest, RejectedLimitIsRememberedAndNotRetried) {
    fake::state().settings = {{MIB_MAX_LAN_HOST_NUM, 300}};
    applyChangedSettings(applied);
    EXPECT_EQ(maxLanHostNum, 0u);
    EXPECT_EQ(applied.maxLanHostNum, 300u);
    // The table's limit changes by another way; the same stored 300 is not tried again.
    setMaxLanHostNum(16);
    applyChangedSettings(applied);
    EXPECT_EQ(maxLanHostNum, 16u);
}

TEST_F(SettingsTest, UnchangedValueIsNotAppliedAgain) {
    fake::state().settings = {{MIB_MAX_LAN_HOST_NUM, 4}};
    applyChangedSettings(applied);
    setMaxLanHostNum(9);
    applyChangedSettings(applied);
    EXPECT_EQ(maxLanHostNum, 9u);
}

TEST_F(SettingsTest, BandwidthEnableIsReadAsOneByte) {
    fake::state().settings = {{MIB_BANDWIDTH_ENABLE, 0x101}};
    applyChangedSettings(applied);
    EXPECT_EQ(applied.bandwidthEnable, 1);
}

TEST_F(SettingsTest, ReloadReadsLevelsMaskAndLimitsInOrder) {
    fake::state().settings = {{MIB_DBG_LEVEL, 0x402}, {MIB_MAX_LAN_HOST_NUM, 64}};
    fake::state().wanChain = {fake::wanChainRecord(1, 0, 0x3)};
    ::testing::internal::CaptureStdout();
    reloadSettings(applied);
    std::string out = ::testing::internal::GetCapturedStdout();
    // Logged with the flags in force before the reload (0), so nothing about USR1...
    EXPECT_EQ(out.find("receive USR1"), std::string::npos);
    // ...but the mask line uses the reloaded flags.
    EXPECT_NE(out.find("bridge_bind_logic_port_mask = 3"), std::string::npos);
    EXPECT_EQ(snifferLogLevel(), 7u);
    EXPECT_EQ(bridge_bind_logic_port_mask, 0x3u);
    EXPECT_EQ(maxLanHostNum, 64u);
}

TEST_F(SettingsTest, ReloadOverwritesAFifoSetLevelAndResetsSnifferLevel) {
    fake::state().settings = {{MIB_DBG_LEVEL, 0x2}};
    char command[] = "log 0x402";
    ::testing::internal::CaptureStdout();
    fifoCmdParse(command);
    unsigned int levelAfterFifo = snifferLogLevel();
    reloadSettings(applied);
    std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(levelAfterFifo, 3u);  // the FIFO does not touch the sniffer level
    EXPECT_EQ(dbg_level, 0x2u);
    EXPECT_EQ(snifferLogLevel(), 3u);
    EXPECT_NE(out.find("[Hostrix]:receive USR1 signal and processing....\n"), std::string::npos);
}

struct MaskCase {
    const char *name;
    std::vector<std::vector<uint8_t>> rows;
    uint32_t mask;
};

class BridgeMaskTest : public SettingsTest, public ::testing::WithParamInterface<MaskCase> {};

TEST_P(BridgeMaskTest, OnlyEnabledBridgedConnectionsCount) {
    fake::state().wanChain = GetParam().rows;
    EXPECT_EQ(getBridgeBindPortMask(), GetParam().mask);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, BridgeMaskTest,
    ::testing::Values(
        MaskCase{"none", {}, 0},
        MaskCase{"two_bridged",
                 {fake::wanChainRecord(1, 0, 0x3), fake::wanChainRecord(1, 0, 0x4)}, 0x7},
        MaskCase{"disabled_and_routed",
                 {fake::wanChainRecord(0, 0, 0x1), fake::wanChainRecord(1, 1, 0x2),
                  fake::wanChainRecord(1, 0, 0x8)},
                 0x8},
        MaskCase{"high_bits", {fake::wanChainRecord(7, 0, 0x80000001u)}, 0x80000001u}),
    CaseName());

struct FifoCase {
    const char *text;
    uint32_t before;
    uint32_t after;
    bool printed;
};

TEST_F(SettingsTest, FifoCommandSetsTheDebugFlags) {
    const FifoCase cases[] = {
        {"log 0x800", 0, 0x800, true},
        {"hello log 2\n", 0, 2, true},
        {"log", 5, 5, false},
        {"no command here", 5, 5, false},
        {"log 010", 0, 8, true},
        {"log abc", 5, 0, true},
        {"log 3 log 4", 0, 3, true},
        {"\n\nlog\n0x11\n", 0, 0x11, true},
        {"log 0x1ffffffff", 0, 0xffffffffu, true},
    };
    for (const FifoCase &c : cases) {
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
