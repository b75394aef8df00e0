// Wi-Fi stations: station-file lines, the directory source behind getWlStaInfo and the
// mode lookup, and the nl80211 decoders on crafted netlink bytes.
#include <linux/genetlink.h>
#include <linux/netlink.h>
#include <linux/nl80211.h>

#include "linux_test_support.h"
#include "netlink_bytes.h"
#include "platform/linux/nl80211.h"
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

TEST(StationLine, AcceptedAndMalformedLines) {
    const std::tuple<const char *, int, uint32_t, uint32_t, const char *> good[] = {
        {"02:00:00:00:00:ab -44 866 144 ac", 56, 866000, 144000, "ac"},
        {"02:00:00:00:00:AB -60 5.5 866.67 g\r", 40, 5500, 866670, "g"},  // decimals, CR
        {"02:00:00:00:00:ab -60 1.23456 0 n", 40, 1234, 0, "n"},  // digits past kb/s dropped
        {"02:00:00:00:00:ab -250 1 1 abcdefgh", 0, 1000, 1000, "abcdefgh"},  // clamped; longest
        {"02:00:00:00:00:ab 300 1 1 n", 255, 1000, 1000, "n"},               // clamped high
    };
    for (const auto &[line, signal, rxKbps, txKbps, mode] : good) {
        wlStaInfo s{};
        ASSERT_TRUE(parseStationLine(line, s)) << line;
        EXPECT_EQ(fieldsOf(s), std::tuple(0xab, 1, +kStaAssociated, signal, rxKbps, txKbps, mode))
            << line;
    }
    const char *const bad[] = {
        "02:00:00:00:00:ab -44 1 1 abcdefghi",  // mode over 8 characters
        "02:00:00:00:00:ab -44 1 1",            // no mode
        "02:00:00:00:00:ab -44 1 1 n x",        // a field too many
        "02:00:00:00:00:ab -44 5. 1 n",         // rate ends in a dot
        "02:00:00:00:00:ab -44 4294968 1 n",    // rate over 2^32 kb/s
        "02:00:00:00:00:ab weak 1 1 n",         // signal no number
        "02:00:00:00:ab -44 1 1 n",             // MAC of five bytes
    };
    wlStaInfo s{};
    for (const char *line : bad) EXPECT_FALSE(parseStationLine(line, s)) << line;
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

TEST_F(StationDirectory, PositionsOneToSixtyFourSkippingBadLines) {
    std::string text = "02:00:00:00:00:01 -44 1 1 ac\nbad line\n02:00:00:00:00:02 -70 1 1 g\n";
    for (int i = 0; i < 70; ++i) text += "02:00:00:00:00:03 -50 1 1 n\n";
    ASSERT_EQ(read("wlan0", text), 64);
    EXPECT_EQ(std::tuple(+buffer_[0].inUse, +buffer_[1].mac[5], +buffer_[2].mac[5],
                         +buffer_[2].signal, +buffer_[64].inUse, +buffer_[kMaxStaNum].inUse),
              std::tuple(0, 1, 2, 30, 1, 0));
    EXPECT_EQ(modeOf("wlan0", 2), "g");
    EXPECT_EQ(modeOf("wlan0", 9), "");
}

TEST_F(StationDirectory, EmptyFileHasNoneMissingFileOrForeignNameIsUnreadable) {
    EXPECT_EQ(read("wlan0", ""), 0);
    for (const char *name : {"wlan1", "../stations/wlan0", static_cast<const char *>(nullptr)})
        EXPECT_EQ(getWlStaInfo(name, buffer_.data()), -1) << (name ? name : "null");
    EXPECT_EQ(modeOf("wlan1", 1), "");
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
                        join({attr(NL80211_ATTR_IFINDEX, raw(3u)), attr(NL80211_ATTR_MAC, raw(mac)),
                              attr(NL80211_ATTR_STA_INFO | NLA_F_NESTED, info)})));
}

Bytes signal(int8_t dbm) {
    return attr(NL80211_STA_INFO_SIGNAL, raw(dbm));
}

Bytes staFlags(uint32_t mask, uint32_t set) {
    return attr(NL80211_STA_INFO_STA_FLAGS, raw(nl80211_sta_flag_update{mask, set}));
}

// How the dump chunk BYTES left the dump, and its stations (room for four).
std::pair<NlDumpState, std::vector<wlStaInfo>> decodeDump(const Bytes &bytes) {
    std::array<wlStaInfo, 4> slots{};
    StationCollector collector{slots};
    const NlDumpState state = nl80211DecodeStationDump(bytes, kSeq, kFamily, collector);
    return {state, std::vector<wlStaInfo>(slots.begin(), slots.begin() + collector.count)};
}

TEST(Nl80211Dump, VhtLegacyAndUnauthorizedStations) {
    constexpr uint32_t kAssociated = 1u << NL80211_STA_FLAG_ASSOCIATED;
    // The 32-bit rate comes first: the 16-bit one after it must not replace it.
    const Bytes vhtRx = attr(NL80211_STA_INFO_RX_BITRATE | NLA_F_NESTED,
                             join({attr(NL80211_RATE_INFO_BITRATE32, raw(8667u)),
                                   attr(NL80211_RATE_INFO_BITRATE, raw(uint16_t{1})),
                                   attr(NL80211_RATE_INFO_VHT_MCS, raw(uint8_t{9}))}));
    const Bytes legacyTx =
        attr(NL80211_STA_INFO_TX_BITRATE, attr(NL80211_RATE_INFO_BITRATE, raw(uint16_t{540})));
    // The first station's flags leave authorized out of the mask: it does not count.
    const auto [state, stations] = decodeDump(join({
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
}

TEST(Nl80211Dump, BrokenStationDroppedBrokenChunkOrErrorFails) {
    // STA_INFO claims more than its message holds: that station alone is dropped.
    const Bytes broken = message(
        kFamily, kSeq,
        genl(NL80211_CMD_NEW_STATION,
             join({attr(NL80211_ATTR_MAC, raw(kMacA)), raw(nlattr{0xf0, NL80211_ATTR_STA_INFO})})));
    const Bytes good = station(kMacB, signal(-70));
    const auto [state, stations] = decodeDump(join({broken, good, kDone}));
    ASSERT_EQ(state, NlDumpState::Done);
    ASSERT_EQ(stations.size(), 1u);
    EXPECT_EQ(stations[0].mac[5], 0xb);
    EXPECT_EQ(decodeDump(Bytes(good.begin(), good.end() - 1)).first, NlDumpState::Failed);  // cut
    EXPECT_EQ(decodeDump(join({good, good, good, good, good, kDone})).second.size(), 4u);   // room
    EXPECT_EQ(decodeDump(message(NLMSG_DONE, kSeq, raw(-EINTR))).first, NlDumpState::Failed);
    EXPECT_EQ(decodeDump(message(NLMSG_ERROR, kSeq, raw(-ENODEV))).first, NlDumpState::Failed);
}

TEST(Nl80211Family, IdFromTheAnswerToOurRequest) {
    auto answer = [](uint32_t seq, uint16_t id) {
        return message(GENL_ID_CTRL, seq,
                       genl(CTRL_CMD_NEWFAMILY, attr(CTRL_ATTR_FAMILY_ID, raw(id))));
    };
    EXPECT_EQ(nl80211DecodeFamilyReply(answer(kSeq + 1, 9), kSeq), 0);  // not ours yet
    EXPECT_EQ(nl80211DecodeFamilyReply(join({answer(kSeq + 1, 9), answer(kSeq, kFamily)}), kSeq),
              kFamily);
    EXPECT_EQ(nl80211DecodeFamilyReply(message(NLMSG_ERROR, kSeq, raw(-ENOENT)), kSeq), -1);
}

// No radio here: the real socket path must answer -1 for what is not a wireless device.
TEST(Nl80211Socket, NoWirelessInterfaceIsUnreadable) {
    std::array<wlStaInfo, kMaxStationsPerInterface> stations{};
    for (const char *name : {"lo", "hx-no-such0", static_cast<const char *>(nullptr)})
        EXPECT_EQ(nl80211ReadStations(name, stations), -1) << (name ? name : "null");
}

}  // namespace
