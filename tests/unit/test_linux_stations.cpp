// Wi-Fi stations: the directory source behind getWlStaInfo (the line parser's odd inputs
// are the fuzz target's) and the mode lookup that answers from its last read, the
// per-interface cache, and the nl80211 station decoders on crafted netlink bytes.
#include <linux/genetlink.h>
#include <linux/nl80211.h>

#include "linux_test_support.h"
#include "netlink_bytes.h"
#include "platform/linux/nl80211.h"
#include "platform/linux/wifi_cache.h"
#include "platform/linux/wifi_stations.h"
#include "platform/zvt.h"

namespace {

using Mac = std::array<uint8_t, 6>;
using namespace nlbytes;

// What the daemon reads of a record; of the MAC, the last byte.
auto fieldsOf(const wlStaInfo &s) {
    return std::tuple(+s.mac[5], +s.inUse, +s.flags, +s.signal, +s.rxRateKbps, +s.txRateKbps,
                      std::string(s.mode, strnlen(s.mode, sizeof s.mode)));
}

class StationDirectory : public HostrixRootTest {
   protected:
    void SetUp() override {
        HostrixRootTest::SetUp();
        std::filesystem::create_directories(root_.file("stations"));
        writeConfig("stations = dir:" + root_.file("stations") + "\n");
    }
    int read(const char *ifname, const std::string &wlan0) {
        std::ofstream(root_.file("stations/wlan0")) << wlan0;
        return getWlStaInfo(ifname, buffer_.data());
    }
    static std::string modeOf(const char *ifname, uint8_t macEnd) {
        char mode[9] = "zz";
        const Mac mac{2, 0, 0, 0, 0, macEnd};
        EXPECT_EQ(zvt_wlan_get_sta_wireless_mode(ifname, mac.data(), 1, mode), 0);
        return mode;
    }
    // One record more than the daemon hands over, to catch a write past the buffer.
    std::array<wlStaInfo, kMaxStaNum + 1> buffer_{};
};

// Records go to positions 1 to 64, bad lines skipped; rates may have decimals, the mode
// up to 8 characters, a line a CR at its end. The mode lookup never reads the
// file again: an edit shows only after the next read. An empty file has no stations; a
// missing file, or a name that is not an interface's, cannot be read.
TEST_F(StationDirectory, PositionsOneToSixtyFourAndModesFromTheLastRead) {
    std::string text =
        "02:00:00:00:00:01 -44 1 1 ac\nbad line\n02:00:00:00:00:02 -70 5.5 866.67 abcdefgh\r\n";
    for (int i = 0; i < 70; ++i) text += "02:00:00:00:00:03 -50 1 1 n\n";
    ASSERT_EQ(read("wlan0", text), 64);
    EXPECT_EQ(std::tuple(+buffer_[0].inUse, +buffer_[1].mac[5], fieldsOf(buffer_[2]),
                         +buffer_[64].inUse, +buffer_[kMaxStaNum].inUse),
              std::tuple(0, 1, std::tuple(2, 1, +kStaAssociated, 30, 5500u, 866670u, "abcdefgh"),
                         1, 0));
    EXPECT_EQ(modeOf("wlan0", 2) + "," + modeOf("wlan0", 9), "abcdefgh,");
    ASSERT_EQ(read("wlan0", "02:00:00:00:00:01 -44 1 1 ac\n"), 1);
    std::ofstream(root_.file("stations/wlan0")) << "02:00:00:00:00:01 -44 1 1 n\n";
    std::ofstream(root_.file("stations/wlan0-vap0")) << "02:00:00:00:00:02 -44 1 1 g\n";
    EXPECT_EQ(modeOf("wlan0", 1), "ac");
    EXPECT_EQ(modeOf("wlan0-vap0", 2), "");  // not read this cycle
    ASSERT_EQ(getWlStaInfo("wlan0", buffer_.data()), 1);
    EXPECT_EQ(modeOf("wlan0", 1), "n");
    std::filesystem::remove(root_.file("stations/wlan0"));
    ASSERT_EQ(getWlStaInfo("wlan0", buffer_.data()), -1);
    EXPECT_EQ(modeOf("wlan0", 1), "");  // a failed read leaves no stations behind
    EXPECT_EQ(read("wlan0", ""), 0);
    for (const char *name : {"wlan1", "../stations/wlan0", static_cast<const char *>(nullptr)})
        EXPECT_EQ(getWlStaInfo(name, buffer_.data()), -1) << (name ? name : "null");
}

// --- nl80211: messages and attributes as the kernel lays them out ---

constexpr uint32_t kSeq = 7;
constexpr uint16_t kFamily = 0x1c;
const Mac kMacA{2, 0, 0, 0, 0, 0xa}, kMacB{2, 0, 0, 0, 0, 0xb};
const Bytes kDone = message(NLMSG_DONE, kSeq, raw(0));

Bytes genl(uint8_t command, const Bytes &attributes) {
    return join({raw(genlmsghdr{command, 1, 0}), attributes});
}

Bytes station(const Mac &mac, const Bytes &info, uint32_t seq = kSeq) {
    return message(kFamily, seq,
                   genl(NL80211_CMD_NEW_STATION,
                        join({attrOf(NL80211_ATTR_IFINDEX, 3u), attrOf(NL80211_ATTR_MAC, mac),
                              nest(NL80211_ATTR_STA_INFO, info)})));
}

Bytes signal(int8_t dbm) {
    return attrOf(NL80211_STA_INFO_SIGNAL, dbm);
}

Bytes staFlags(uint32_t mask, uint32_t set) {
    return attrOf(NL80211_STA_INFO_STA_FLAGS, nl80211_sta_flag_update{mask, set});
}

// How the dump chunk BYTES left the dump, and its stations (room for four).
std::pair<NlDumpState, std::vector<wlStaInfo>> decodeDump(const Bytes &bytes) {
    std::array<wlStaInfo, 4> slots{};
    StationCollector collector{slots, 2412};
    const NlDumpState state = nl80211DecodeStationDump(bytes, kSeq, kFamily, collector);
    return {state, std::vector<wlStaInfo>(slots.begin(), slots.begin() + collector.count)};
}

TEST(Nl80211Dump, VhtLegacyAndUnauthorizedStations) {
    constexpr uint32_t kAssociated = 1u << NL80211_STA_FLAG_ASSOCIATED;
    // The 32-bit rate comes first: the 16-bit one after it must not replace it.
    const Bytes vhtRx = nest(NL80211_STA_INFO_RX_BITRATE,
                             join({attrOf(NL80211_RATE_INFO_BITRATE32, 8667u),
                                   attrOf(NL80211_RATE_INFO_BITRATE, uint16_t{1}),
                                   attrOf(NL80211_RATE_INFO_VHT_MCS, uint8_t{9})}));
    const Bytes legacyTx =
        attr(NL80211_STA_INFO_TX_BITRATE, attrOf(NL80211_RATE_INFO_BITRATE, uint16_t{540}));
    // STA_INFO claims more than its message holds: that station alone is dropped.
    const Bytes broken = message(
        kFamily, kSeq,
        genl(NL80211_CMD_NEW_STATION,
             join({attrOf(NL80211_ATTR_MAC, kMacB), raw(nlattr{0xf0, NL80211_ATTR_STA_INFO})})));
    // The first station's flags leave authorized out of the mask: it does not count.
    const auto [state, stations] = decodeDump(join({
        broken,
        station(kMacA, join({signal(-50), vhtRx, staFlags(kAssociated, kAssociated)})),
        station(kMacA, {}, kSeq + 1),  // another dump's
        station(kMacB, join({signal(-70), legacyTx})),
        station(kMacA, staFlags(kAssociated | 1u << NL80211_STA_FLAG_AUTHORIZED, kAssociated)),
        kDone,
    }));
    ASSERT_EQ(state, NlDumpState::Done);
    ASSERT_EQ(stations.size(), 3u);
    EXPECT_EQ(fieldsOf(stations[0]), std::tuple(0xa, 1, +kStaAssociated, 50, 866700u, 0u, "ac"));
    EXPECT_EQ(fieldsOf(stations[1]), std::tuple(0xb, 1, +kStaAssociated, 30, 0u, 54000u, "g"));
    EXPECT_EQ(fieldsOf(stations[2]), std::tuple(0xa, 1, 0, 0, 0u, 0u, ""));  // not authorized
    const Bytes good = station(kMacB, signal(-70));
    EXPECT_EQ(decodeDump(Bytes(good.begin(), good.end() - 1)).first, NlDumpState::Failed);  // cut
    EXPECT_EQ(decodeDump(join({good, good, good, good, good, kDone})).second.size(), 4u);   // room
    EXPECT_EQ(decodeDump(message(NLMSG_ERROR, kSeq, raw(-ENODEV))).first, NlDumpState::Failed);
}

Bytes legacy(int direction) {
    return nest(direction, attrOf(NL80211_RATE_INFO_BITRATE, uint16_t{540}));
}

Bytes mcs(int direction, int kind) {
    return nest(direction,
                join({attrOf(NL80211_RATE_INFO_BITRATE32, 1201u), attrOf(kind, uint8_t{7})}));
}

// The generation either direction shows; legacy rates take the interface's band.
TEST(Nl80211Station, ModeFromTheNegotiatedRatesAndTheBand) {
    constexpr int kRx = NL80211_STA_INFO_RX_BITRATE, kTx = NL80211_STA_INFO_TX_BITRATE;
    const std::tuple<Bytes, uint32_t, const char *> cases[] = {
        {join({mcs(kTx, NL80211_RATE_INFO_HE_MCS), legacy(kRx)}), 5180, "ax"},
        {mcs(kRx, NL80211_RATE_INFO_VHT_MCS), 5180, "ac"},  // rx alone is enough
        {join({legacy(kRx), mcs(kTx, NL80211_RATE_INFO_MCS)}), 2412, "n"},
        {mcs(kTx, NL80211_RATE_INFO_EHT_MCS), 6115, "be"},
        // Legacy rates at 2.4, 5 and 6 GHz and where the band is not known; no rate at all.
        {legacy(kTx), 2412, "g"}, {legacy(kTx), 5180, "a"}, {legacy(kRx), 5955, "a"},
        {legacy(kTx), 0, ""}, {signal(-40), 2412, ""}};
    for (const auto &[info, mhz, mode] : cases) {
        wlStaInfo s{};
        const Bytes attributes =
            join({attrOf(NL80211_ATTR_MAC, kMacA), attr(NL80211_ATTR_STA_INFO, info)});
        ASSERT_TRUE(nl80211DecodeStation(attributes, mhz, s)) << mode << " at " << mhz;
        EXPECT_STREQ(s.mode, mode) << mhz << " MHz";
    }
}

TEST(WifiCache, SsidServesOneCycleAndTheLongestUnusedInterfaceGivesWay) {
    WifiCache cache;
    wlStaInfo station{};
    station.inUse = 1;
    station.mac[5] = 0xa;
    std::memcpy(station.mode, "ax", 3);
    cache.putStations("wlan1", std::span(&station, 1), 1000);  // the oldest
    cache.putSsid("wlan0", "home", 5000);
    cache.putSsid("wlan0-vap0", "", 5000);
    EXPECT_EQ(cache.ssidOf("wlan0", 5000 + kWifiSsidLifetimeMs - 1), "home");
    EXPECT_EQ(cache.ssidOf("wlan0", 5000 + kWifiSsidLifetimeMs), std::nullopt);  // ask again
    EXPECT_EQ(cache.ssidOf("wlan0-vap0", 5000), "");  // known to have none
    EXPECT_EQ(cache.ssidOf("wlan1", 1000), std::nullopt);
    for (size_t i = 3; i < kMaxCachedWifiInterfaces; ++i)
        cache.putSsid("hx" + std::to_string(i), "guest", 6000);
    EXPECT_EQ(cache.modeOf("wlan1", station.mac), "ax");  // every interface still fits
    cache.putSsid("wlan9", "new", 7000);
    EXPECT_EQ(cache.modeOf("wlan1", station.mac), std::nullopt);
    EXPECT_EQ(cache.ssidOf("wlan0", 5001), "home");
    station.inUse = 0;
    cache.putStations("wlan0", std::span(&station, 1), 7000);  // a record not in use
    EXPECT_EQ(cache.modeOf("wlan0", station.mac), std::nullopt);
}

}  // namespace
