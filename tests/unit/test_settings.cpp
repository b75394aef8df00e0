#include "fixture.h"

namespace {

struct SettingsTest : HostrixTest {
    AppliedSettings applied;
    std::tuple<uint32_t, uint32_t, uint8_t, uint32_t> limits() const {
        return {maxLanHostNum, maxControlledNum, applied.bandwidthEnable, bandwidthInterval};
    }
};

// The limits are applied at start-up and again at every reload, each only when its
// stored value changed: a limit a command changed since stays, and a rejected value
// is remembered rather than retried. The enable flag is one byte: 0x101 reads as 1.
// The direct settings are read at every reload, each from its own id; one that cannot
// be read keeps its value.
TEST_F(SettingsTest, LimitsAreAppliedWhenTheirStoredValueChanges) {
    fake::state().settings = {{MIB_MAX_LAN_HOST_NUM, 300},   {MIB_MAX_CONTROLLED_NUM, 8},
                              {MIB_BANDWIDTH_ENABLE, 0x101}, {MIB_BANDWIDTH_INTERVAL, 10},
                              {MIB_DBG_LEVEL, 0x800},        {MIB_ARP_INTERVAL, 21},
                              {MIB_AGEOUT_TIME, 61},         {MIB_ARP_RETRY, 4},
                              {MIB_FDB_IDLE_MAX, 91},        {MIB_IDLE_TIMEOUT, 92}};
    applyChangedSettings(applied);
    EXPECT_EQ(limits(), std::tuple(256u, 8u, 1, 10u));
    setMaxLanHostNum(4);
    setMaxControlledNum(2);
    reloadSettings(applied);
    EXPECT_EQ(limits(), std::tuple(4u, 2u, 1, 10u));
    fake::state().settings = {{MIB_MAX_LAN_HOST_NUM, 32},
                              {MIB_MAX_CONTROLLED_NUM, 12},
                              {MIB_BANDWIDTH_ENABLE, 0},
                              {MIB_BANDWIDTH_INTERVAL, 0}};
    reloadSettings(applied);
    EXPECT_EQ(limits(), std::tuple(32u, 12u, 0, 0u));
    EXPECT_EQ((std::array{dbg_level, NET_INFO_ARP_INTERVAL, NET_INFO_AGEOUT_TIME,
                          NET_INFO_ARP_RETRY, NET_INFO_FDB_IDLE_MAX, NET_INFO_IDLE_TIMEOUT}),
              (std::array<uint32_t, 6>{0x800, 21, 61, 4, 91, 92}));
}

// The USR1 line follows the flags in force before the reload (here set through the
// FIFO), the sniffer level and the mask line the reloaded ones. Only enabled, bridged
// connections add their ports to the mask.
TEST_F(SettingsTest, ReloadSetsSnifferLevelAndBridgeMaskFromTheStore) {
    fake::state().wanChain = {fake::wanChainRecord(0, 0, 0x1), fake::wanChainRecord(1, 1, 0x2),
                              fake::wanChainRecord(1, 0, 0x8),
                              fake::wanChainRecord(7, 0, 0x80000004u)};
    for (uint32_t stored : {DBG_SNIFFER_VERBOSE, 0u}) {
        dbg_level = DBG_TRACE;
        fake::state().settings = {{MIB_DBG_LEVEL, stored}};
        const std::string out = printedBy([this] { reloadSettings(applied); });
        EXPECT_TRUE(out.starts_with("[Hostrix]:receive USR1 signal and processing....\n")) << out;
        EXPECT_EQ(out.find("bridge_bind_logic_port_mask"), std::string::npos) << out;
        EXPECT_EQ(snifferLogLevel(), stored ? 7u : 3u);
    }
    EXPECT_EQ(bridge_bind_logic_port_mask, 0x8000000cu);
}

}  // namespace
