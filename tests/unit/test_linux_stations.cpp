// Wi-Fi stations: the station-file lines, the directory source behind getWlStaInfo and
// the mode lookup, and the nl80211 decoders on crafted netlink bytes.
#include <linux/genetlink.h>
#include <linux/netlink.h>
#include <linux/nl80211.h>

#include "linux_test_support.h"
#include "platform/linux/nl80211.h"
#include "platform/linux/wifi_stations.h"
#include "platform/zvt.h"

namespace {

// --- station file lines ---

struct StationCase {
    const char *name;
    const char *line;
    bool parsed;
    uint8_t signal = 0;
    uint32_t rxKbps = 0, txKbps = 0;
    const char *mode = "";
};

class StationLine : public ::testing::TestWithParam<StationCase> {};

TEST_P(StationLine, RecordOrSkip) {
    const StationCase &c = GetParam();
    wlStaInfo station{};
    ASSERT_EQ(parseStationLine(c.line, station), c.parsed);
    if (!c.parsed) return;
    const uint8_t mac[6] = {0x02, 0, 0, 0, 0, 0xab};
    EXPECT_EQ(std::memcmp(station.mac, mac, sizeof mac), 0);
    EXPECT_EQ(+station.inUse, 1);
    EXPECT_EQ(+station.flags, kStaAssociated);
    EXPECT_EQ(station.signal, c.signal);
    EXPECT_EQ(+station.rxRateKbps, c.rxKbps);
    EXPECT_EQ(+station.txRateKbps, c.txKbps);
    EXPECT_STREQ(station.mode, c.mode);
}

INSTANTIATE_TEST_SUITE_P(
    Lines, StationLine,
    ::testing::Values(
        StationCase{"Whole", "02:00:00:00:00:ab -44 866 144 ac", true, 56, 866000, 144000, "ac"},
        StationCase{"Decimals", "02:00:00:00:00:AB -60 5.5 866.67 g\r", true, 40, 5500, 866670,
                    "g"},
        StationCase{"ExtraDecimalsDropped", "02:00:00:00:00:ab -60 1.23456 0 n", true, 40, 1234, 0,
                    "n"},
        StationCase{"SignalClampedLow", "02:00:00:00:00:ab -250 1 1 n", true, 0, 1000, 1000, "n"},
        StationCase{"SignalClampedHigh", "02:00:00:00:00:ab 300 1 1 n", true, 255, 1000, 1000, "n"},
        StationCase{"LongestMode", "02:00:00:00:00:ab -44 1 1 abcdefgh", true, 56, 1000, 1000,
                    "abcdefgh"},
        StationCase{"OverlongMode", "02:00:00:00:00:ab -44 1 1 abcdefghi", false},
        StationCase{"NoMode", "02:00:00:00:00:ab -44 1 1", false},
        StationCase{"ExtraField", "02:00:00:00:00:ab -44 1 1 n x", false},
        StationCase{"RateEndsInDot", "02:00:00:00:00:ab -44 5. 1 n", false},
        StationCase{"RateTooLarge", "02:00:00:00:00:ab -44 4294968 1 n", false},
        StationCase{"SignalNotANumber", "02:00:00:00:00:ab weak 1 1 n", false},
        StationCase{"BadMac", "02:00:00:00:ab -44 1 1 n", false}),
    [](const auto &param) { return std::string(param.param.name); });

// --- the directory source ---

class StationDirectory : public HostrixRootTest {
   protected:
    void SetUp() override {
        HostrixRootTest::SetUp();
        std::filesystem::create_directories(root_.file("stations"));
        writeConfig("stations = dir:" + root_.file("stations") + "\n");
    }
    void writeStations(const std::string &ifname, const std::string &text) const {
        std::ofstream(root_.file("stations/" + ifname)) << text;
    }
    // One record more than the daemon hands over, to catch a write past the buffer.
    std::array<wlStaInfo, kMaxStaNum + 1> buffer_{};
};

TEST_F(StationDirectory, RecordsFromPositionOneSkippingBadLines) {
    writeStations("wlan1",
                  "02:00:00:00:00:01 -44 866 866 ac\nbad line\n02:00:00:00:00:02 -70 54 6 g\n");
    ASSERT_EQ(getWlStaInfo("wlan1", buffer_.data()), 2);
    EXPECT_EQ(+buffer_[0].inUse, 0);
    EXPECT_EQ(buffer_[1].mac[5], 1);
    EXPECT_EQ(buffer_[2].mac[5], 2);
    EXPECT_EQ(buffer_[2].signal, 30);
    EXPECT_EQ(+buffer_[3].inUse, 0);
    char mode[9] = "zz";
    const uint8_t second[6] = {2, 0, 0, 0, 0, 2}, unknown[6] = {2, 0, 0, 0, 0, 9};
    EXPECT_EQ(zvt_wlan_get_sta_wireless_mode("wlan1", second, 1, mode), 0);
    EXPECT_STREQ(mode, "g");
    EXPECT_EQ(zvt_wlan_get_sta_wireless_mode("wlan1", unknown, 1, mode), 0);
    EXPECT_STREQ(mode, "");
}

TEST_F(StationDirectory, AtMostSixtyFourStations) {
    std::string text;
    for (int i = 1; i <= 70; ++i)
        text += "02:00:00:00:01:" + std::to_string(10 + i) + " -50 1 1 n\n";
    writeStations("wlan0", text);
    ASSERT_EQ(getWlStaInfo("wlan0", buffer_.data()), 64);
    EXPECT_EQ(+buffer_[64].inUse, 1);
    EXPECT_EQ(+buffer_[kMaxStaNum].inUse, 0);
}

TEST_F(StationDirectory, MissingFileOrBadNameIsUnreadable) {
    writeStations("wlan0", "");
    EXPECT_EQ(getWlStaInfo("wlan0", buffer_.data()), 0);
    EXPECT_EQ(getWlStaInfo("wlan1", buffer_.data()), -1);
    EXPECT_EQ(getWlStaInfo("../stations/wlan0", buffer_.data()), -1);
    EXPECT_EQ(getWlStaInfo(nullptr, buffer_.data()), -1);
    char mode[9] = "zz";
    EXPECT_EQ(zvt_wlan_get_sta_wireless_mode("wlan1", buffer_[0].mac, 1, mode), 0);
    EXPECT_STREQ(mode, "");
}

// --- nl80211 ---

constexpr uint32_t kSeq = 7;
constexpr uint16_t kFamily = 0x1c;

// Netlink messages and (nested) attributes, lengths filled in by end().
class NlBuilder {
   public:
    NlBuilder &message(uint16_t type, uint32_t seq) {
        open_.push_back({bytes_.size(), true});
        nlmsghdr header{0, type, 0, seq, 0};
        return put(&header, sizeof header);
    }
    NlBuilder &genl(uint8_t command) {
        genlmsghdr header{command, 1, 0};
        return put(&header, sizeof header);
    }
    template <typename T>
    NlBuilder &attr(uint16_t type, const T &value) {
        nlattr header{static_cast<uint16_t>(NLA_HDRLEN + sizeof value), type};
        return put(&header, sizeof header).put(&value, sizeof value).pad();
    }
    template <typename T>
    NlBuilder &raw(const T &value) {
        return put(&value, sizeof value).pad();
    }
    NlBuilder &nest(uint16_t type) {
        open_.push_back({bytes_.size(), false});
        nlattr header{0, static_cast<uint16_t>(type | NLA_F_NESTED)};
        return put(&header, sizeof header);
    }
    NlBuilder &end() {
        auto [at, isMessage] = open_.back();
        open_.pop_back();
        uint32_t length = static_cast<uint32_t>(bytes_.size() - at);
        if (isMessage) std::memcpy(&bytes_[at], &length, sizeof length);
        uint16_t short_length = static_cast<uint16_t>(length);
        if (!isMessage) std::memcpy(&bytes_[at], &short_length, sizeof short_length);
        return *this;
    }
    std::vector<uint8_t> &bytes() { return bytes_; }

   private:
    NlBuilder &put(const void *data, size_t size) {
        auto *p = static_cast<const uint8_t *>(data);
        bytes_.insert(bytes_.end(), p, p + size);
        return *this;
    }
    NlBuilder &pad() {
        while (bytes_.size() % NLA_ALIGNTO) bytes_.push_back(0);
        return *this;
    }
    std::vector<uint8_t> bytes_;
    std::vector<std::pair<size_t, bool>> open_;
};

using Mac = std::array<uint8_t, 6>;

// A VHT station (-50 dBm, rx 866.7 Mb/s) with FLAGS set of associated|authorized.
void vhtStation(NlBuilder &b, const Mac &mac, uint32_t flagsSet) {
    const uint32_t both = 1u << NL80211_STA_FLAG_ASSOCIATED | 1u << NL80211_STA_FLAG_AUTHORIZED;
    b.message(kFamily, kSeq).genl(NL80211_CMD_NEW_STATION).attr(NL80211_ATTR_IFINDEX, 3u);
    b.attr(NL80211_ATTR_MAC, mac)
        .nest(NL80211_ATTR_STA_INFO)
        .attr(NL80211_STA_INFO_SIGNAL, int8_t{-50});
    b.nest(NL80211_STA_INFO_RX_BITRATE).attr(NL80211_RATE_INFO_BITRATE, uint16_t{1});
    b.attr(NL80211_RATE_INFO_BITRATE32, 8667u).attr(NL80211_RATE_INFO_VHT_MCS, uint8_t{9}).end();
    b.attr(NL80211_STA_INFO_STA_FLAGS, nl80211_sta_flag_update{both, flagsSet}).end().end();
}

// A legacy station (-70 dBm, tx 54 Mb/s) without flags.
void legacyStation(NlBuilder &b, const Mac &mac) {
    b.message(kFamily, kSeq).genl(NL80211_CMD_NEW_STATION).attr(NL80211_ATTR_MAC, mac);
    b.nest(NL80211_ATTR_STA_INFO).attr(NL80211_STA_INFO_SIGNAL, int8_t{-70});
    b.nest(NL80211_STA_INFO_TX_BITRATE).attr(NL80211_RATE_INFO_BITRATE, uint16_t{540}).end();
    b.end().end();
}

void done(NlBuilder &b) {
    b.message(NLMSG_DONE, kSeq).raw(0).end();  // payload: error 0
}

class Nl80211Dump : public ::testing::Test {
   protected:
    NlDumpState decode(const std::vector<uint8_t> &bytes) {
        collector_ = StationCollector{stations_};
        return nl80211DecodeStationDump(bytes, kSeq, kFamily, collector_);
    }
    std::array<wlStaInfo, 4> stations_{};
    StationCollector collector_;
    const Mac a_{2, 0, 0, 0, 0, 0xa}, b_{2, 0, 0, 0, 0, 0xb}, c_{2, 0, 0, 0, 0, 0xc};
};

TEST_F(Nl80211Dump, VhtLegacyAndUnauthorizedStations) {
    NlBuilder b;
    vhtStation(b, a_, ~0u);
    b.message(kFamily, kSeq + 1).genl(NL80211_CMD_NEW_STATION).attr(NL80211_ATTR_MAC, b_).end();
    legacyStation(b, b_);
    vhtStation(b, c_, 1u << NL80211_STA_FLAG_ASSOCIATED);
    done(b);
    ASSERT_EQ(decode(b.bytes()), NlDumpState::Done);
    ASSERT_EQ(collector_.count, 3u);  // the other sequence's station is passed over
    const wlStaInfo &vht = stations_[0], &legacy = stations_[1];
    EXPECT_EQ(std::memcmp(vht.mac, a_.data(), 6), 0);
    EXPECT_EQ(std::tuple(+vht.inUse, +vht.flags, +vht.signal, +vht.rxRateKbps, +vht.txRateKbps),
              std::tuple(1, +kStaAssociated, 50, 866700u, 0u));
    EXPECT_STREQ(vht.mode, "ac");
    EXPECT_EQ(std::memcmp(legacy.mac, b_.data(), 6), 0);
    EXPECT_EQ(std::tuple(+legacy.flags, +legacy.signal, +legacy.txRateKbps),
              std::tuple(+kStaAssociated, 30, 54000u));
    EXPECT_STREQ(legacy.mode, "g");
    EXPECT_EQ(std::tuple(+stations_[2].inUse, +stations_[2].flags), std::tuple(1, 0));  // no auth
}

TEST_F(Nl80211Dump, EveryTruncationStopsShortOfDone) {
    NlBuilder b;
    vhtStation(b, a_, ~0u);
    legacyStation(b, b_);
    done(b);
    for (size_t size = 0; size < b.bytes().size(); ++size) {
        std::vector<uint8_t> prefix(b.bytes().begin(), b.bytes().begin() + size);
        EXPECT_NE(decode(prefix), NlDumpState::Done) << size;
        EXPECT_LE(collector_.count, 2u);
    }
}

TEST_F(Nl80211Dump, OverrunsAndErrors) {
    NlBuilder b;
    vhtStation(b, a_, ~0u);
    const size_t infoLengthAt = sizeof(nlmsghdr) + GENL_HDRLEN + 8 + 12;  // after IFINDEX, MAC
    b.bytes()[infoLengthAt] = 0xf0;  // STA_INFO claims more than its message holds
    legacyStation(b, b_);
    done(b);
    ASSERT_EQ(decode(b.bytes()), NlDumpState::Done);
    ASSERT_EQ(collector_.count, 1u);  // the broken station alone is dropped
    EXPECT_EQ(stations_[0].mac[5], 0xb);

    const uint32_t tooLong = 0x10000;  // nlmsg_len past the chunk: nothing after it is trusted
    std::memcpy(b.bytes().data(), &tooLong, sizeof tooLong);
    EXPECT_EQ(decode(b.bytes()), NlDumpState::Failed);
    NlBuilder error;
    error.message(NLMSG_ERROR, kSeq).raw(-ENODEV).end();
    EXPECT_EQ(decode(error.bytes()), NlDumpState::Failed);
}

TEST(Nl80211Family, IdFromTheAnswerToOurRequest) {
    NlBuilder b;
    b.message(GENL_ID_CTRL, kSeq + 1)
        .genl(CTRL_CMD_NEWFAMILY)
        .attr(CTRL_ATTR_FAMILY_ID, uint16_t{9})
        .end();
    EXPECT_EQ(nl80211DecodeFamilyReply(b.bytes(), kSeq), 0);  // not ours yet
    b.message(GENL_ID_CTRL, kSeq).genl(CTRL_CMD_NEWFAMILY).attr(CTRL_ATTR_FAMILY_ID, kFamily).end();
    EXPECT_EQ(nl80211DecodeFamilyReply(b.bytes(), kSeq), kFamily);
    NlBuilder error;
    error.message(NLMSG_ERROR, kSeq).raw(-ENOENT).end();
    EXPECT_EQ(nl80211DecodeFamilyReply(error.bytes(), kSeq), -1);
    error.bytes().resize(sizeof(nlmsghdr) - 1);
    EXPECT_EQ(nl80211DecodeFamilyReply(error.bytes(), kSeq), -1);
}

// No radio here: the real socket path must answer -1 for what is not a wireless device.
TEST(Nl80211Socket, NoWirelessInterfaceIsUnreadable) {
    std::array<wlStaInfo, kMaxStationsPerInterface> stations{};
    EXPECT_EQ(nl80211ReadStations("lo", stations), -1);
    EXPECT_EQ(nl80211ReadStations("hx-no-such0", stations), -1);
    EXPECT_EQ(nl80211ReadStations(nullptr, stations), -1);
}

}  // namespace
