// The linux configuration store: the pure parser first, then the store over a file in
// a temporary HOSTRIX_ROOT (loading, reporting, reloading, the records it lays out).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "core/paths.h"
#include "core/unique_fd.h"
#include "platform/linux/mib_config.h"
#include "platform/linux/mib_store.h"
#include "platform/mib.h"
#include "platform/zvt.h"

namespace {

// Names parameterised cases after their `name` member.
struct CaseName {
    template <typename T>
    std::string operator()(const ::testing::TestParamInfo<T> &param) const {
        return param.param.name;
    }
};

namespace fs = std::filesystem;

struct Skipped {
    unsigned line;
    std::string reason;
};

// Parses TEXT over the defaults, collecting what was skipped.
MibConfig parse(std::string_view text, std::vector<Skipped> *skipped = nullptr) {
    MibConfig config;
    parseMibConfig(text, config, [skipped](unsigned line, std::string_view reason) {
        if (skipped) skipped->push_back({line, std::string(reason)});
    });
    return config;
}

// ---- parser: good lines ----

struct SettingCase {
    const char *name;
    const char *text;
    int id;
    uint32_t value;
};

class ParseSetting : public ::testing::TestWithParam<SettingCase> {};

TEST_P(ParseSetting, StoresValue) {
    std::vector<Skipped> skipped;
    MibConfig config = parse(GetParam().text, &skipped);
    EXPECT_TRUE(skipped.empty()) << skipped.front().reason;
    ASSERT_EQ(config.settings.count(GetParam().id), 1u);
    EXPECT_EQ(config.settings.at(GetParam().id), GetParam().value);
}

INSTANTIATE_TEST_SUITE_P(
    Numbers, ParseSetting,
    ::testing::Values(SettingCase{"Hex", "480 = 0x800", 480, 0x800},
                      SettingCase{"UpperHex", "480=0XfF", 480, 0xff},
                      SettingCase{"Decimal", "478 = 256", 478, 256},
                      SettingCase{"LeadingZeroIsOctal", "481 = 020", 481, 16},
                      SettingCase{"Zero", "482 = 0", 482, 0},
                      SettingCase{"Largest", "483 = 4294967295", 483, 0xffffffffu},
                      SettingCase{"TabsAndBlanks", " \t484\t=\t 7 \t", 484, 7},
                      SettingCase{"CarriageReturn", "485 = 9\r", 485, 9},
                      SettingCase{"TrailingComment", "474 = 1 # bandwidth on", 474, 1},
                      SettingCase{"CommentRightAfterValue", "475 = 30#s", 475, 30},
                      SettingCase{"AnyId", "99999 = 5", 99999, 5},
                      SettingCase{"LaterLineWins", "480 = 1\n480 = 2", 480, 2}),
    CaseName());

TEST(ParseMibConfig, CommentsAndBlankLinesChangeNothing) {
    std::vector<Skipped> skipped;
    EXPECT_EQ(parse("# settings\n\n   \n\t# indented comment\n#480 = 5\n", &skipped), MibConfig{});
    EXPECT_TRUE(skipped.empty());
}

TEST(ParseMibConfig, ChainRowsAccumulateInFileOrder) {
    MibConfig config = parse(
        "chain.3004 = enable=1 mode=0 ports=0x3\n"
        "chain.3004 = ports=0x80000001 mode=1\n"
        "chain.3004 =\n");
    ASSERT_EQ(config.wanConnections.size(), 3u);
    EXPECT_EQ(config.wanConnections[0], (MibChainRow{1, 0, 0x3}));
    EXPECT_EQ(config.wanConnections[1], (MibChainRow{0, 1, 0x80000001}));
    EXPECT_EQ(config.wanConnections[2], MibChainRow{});
}

TEST(ParseMibConfig, ChainRowsAreBounded) {
    std::string text;
    for (size_t i = 0; i <= kMibMaxChainRows; ++i) text += "chain.3004 = enable=1\n";
    std::vector<Skipped> skipped;
    EXPECT_EQ(parse(text, &skipped).wanConnections.size(), kMibMaxChainRows);
    ASSERT_EQ(skipped.size(), 1u);
    EXPECT_EQ(skipped[0].line, kMibMaxChainRows + 1);
}

TEST(ParseMibConfig, InterfaceNamesWithDefaultsAndGaps) {
    MibConfig defaults = parse("");
    EXPECT_EQ(defaults.lanPorts,
              (std::array<std::string, 4>{"eth0.2", "eth0.3", "eth0.4", "eth0.5"}));
    EXPECT_EQ(defaults.wlanRoots, (std::array<std::string, 2>{"wlan0", "wlan1"}));

    MibConfig some = parse("lan_ports = lan1   lan2\nwlan_roots = radio0\n");
    EXPECT_EQ(some.lanPorts, (std::array<std::string, 4>{"lan1", "lan2", "", ""}));
    EXPECT_EQ(some.wlanRoots, (std::array<std::string, 2>{"radio0", ""}));
    EXPECT_EQ(parse("lan_ports =").lanPorts, (std::array<std::string, 4>{}));
}

TEST(ParseMibConfig, PlatformKeys) {
    MibConfig config = parse(
        "lease_file = /tmp/leases\n"
        "ssid.wlan0 =  My Home  Net  \n"
        "ssid.wlan1 =\n"
        "phy.eth0.2 = 3\n"
        "logic.eth0.2 = 0x1\n"
        "stations = dir:/lab/stations\n"
        "counters = off\n");
    EXPECT_EQ(config.leaseFile, "/tmp/leases");
    EXPECT_EQ(config.ssids.at("wlan0"), "My Home  Net");
    EXPECT_EQ(config.ssids.at("wlan1"), "");
    EXPECT_EQ(config.phyIds.at("eth0.2"), 3);
    EXPECT_EQ(config.logicIds.at("eth0.2"), 1);
    EXPECT_EQ(config.stations, MibStationSource::Directory);
    EXPECT_EQ(config.stationDir, "/lab/stations");
    EXPECT_EQ(config.counters, MibCounterSource::Off);
}

TEST(ParseMibConfig, PlatformDefaults) {
    MibConfig config = parse("");
    EXPECT_EQ(config.leaseFile, "/var/lib/misc/dnsmasq.leases");
    EXPECT_EQ(config.stations, MibStationSource::Nl80211);
    EXPECT_EQ(config.counters, MibCounterSource::Nftables);
    EXPECT_EQ(parse("stations = dir:/x\nstations = nl80211").stations, MibStationSource::Nl80211);
}

TEST(ParseMibConfig, SsidOfThirtyTwoBytesFits) {
    std::string ssid(kMibMaxSsidBytes, 's');
    EXPECT_EQ(parse("ssid.wlan0 = " + ssid).ssids.at("wlan0"), ssid);
}

TEST(ParseMibConfig, NeverReadsPastTheView) {
    const char text[] = "480 = 12345";
    EXPECT_EQ(parse(std::string_view(text, 8)).settings.at(480), 12u);
    EXPECT_EQ(parse(std::string_view(text, 3)), MibConfig{});  // "480": no '='
}

TEST(ParseMibConfig, LastLineNeedsNoNewline) {
    EXPECT_EQ(parse("480 = 1\n481 = 2").settings.size(), 2u);
}

// ---- parser: malformed lines ----

struct MalformedCase {
    const char *name;
    std::string line;
    const char *reason;  // a part of the reported reason
};

class ParseMalformed : public ::testing::TestWithParam<MalformedCase> {};

// The bad line sits between two good ones: it alone is skipped and reported.
TEST_P(ParseMalformed, SkipsOnlyThatLine) {
    std::vector<Skipped> skipped;
    MibConfig config = parse("478 = 1\n" + GetParam().line + "\n479 = 2\n", &skipped);
    ASSERT_EQ(skipped.size(), 1u);
    EXPECT_EQ(skipped[0].line, 2u);
    EXPECT_NE(skipped[0].reason.find(GetParam().reason), std::string::npos) << skipped[0].reason;
    EXPECT_EQ(config, parse("478 = 1\n479 = 2\n"));
}

INSTANTIATE_TEST_SUITE_P(
    Lines, ParseMalformed,
    ::testing::Values(
        MalformedCase{"BadHexDigits", "480 = 0xZZ", "bad number \"0xZZ\" for setting 480"},
        MalformedCase{"ThirtyThreeBits", "480 = 4294967296", "bad number"},
        MalformedCase{"Negative", "480 = -1", "bad number"},
        MalformedCase{"BadOctalDigit", "480 = 08", "bad number"},
        MalformedCase{"HexPrefixOnly", "480 = 0x", "bad number"},
        MalformedCase{"EmptyValue", "480 =", "bad number \"\""},
        MalformedCase{"TwoValues", "480 = 1 2", "bad number"},
        MalformedCase{"IdWithLetters", "480x = 1", "bad setting id \"480x\""},
        MalformedCase{"IdBeyondInt", "2147483648 = 1", "bad setting id"},
        MalformedCase{"MissingEquals", "480 1", "missing '='"},
        MalformedCase{"EmptyKey", " = 5", "empty key"},
        MalformedCase{"UnknownKey", "colour = red", "unknown key \"colour\""},
        MalformedCase{"KeyCaseMatters", "LAN_PORTS = a", "unknown key"},
        MalformedCase{"UnknownChain", "chain.3005 = enable=1", "unknown chain \"3005\""},
        MalformedCase{"ChainWithoutId", "chain. = enable=1", "unknown chain"},
        MalformedCase{"UnknownChainWord", "chain.3004 = enable=1 colour=red", "bad attribute"},
        MalformedCase{"ChainWordWithoutValue", "chain.3004 = ports", "bad value \"\" for ports"},
        MalformedCase{"ChainModeOverByte", "chain.3004 = mode=256", "bad value \"256\" for mode"},
        MalformedCase{"ChainPortsOver32Bits", "chain.3004 = ports=0x100000000", "for ports"},
        MalformedCase{"FiveLanPorts", "lan_ports = a b c d e", "more than 4"},
        MalformedCase{"ThreeWlanRoots", "wlan_roots = a b c", "more than 2"},
        MalformedCase{"SlashInName", "lan_ports = eth0/2", "bad interface name"},
        MalformedCase{"NameOverFifteen", "lan_ports = abcdefghijklmnop", "bad interface name"},
        MalformedCase{"DotName", "wlan_roots = ..", "bad interface name"},
        MalformedCase{"SsidTooLong", "ssid.wlan0 = " + std::string(33, 's'), "longer than 32"},
        MalformedCase{"SsidWithoutInterface", "ssid. = home", "bad interface name"},
        MalformedCase{"PhyNotNumber", "phy.eth0.2 = two", "bad port id"},
        MalformedCase{"LogicBeyondInt", "logic.eth0.2 = 2147483648", "bad port id"},
        MalformedCase{"StationsEmptyDir", "stations = dir:", "bad station source"},
        MalformedCase{"StationsUnknown", "stations = usb", "bad station source"},
        MalformedCase{"CountersUnknown", "counters = on", "bad counter source"},
        MalformedCase{"RelativeLeaseFile", "lease_file = leases", "absolute path"},
        MalformedCase{"NulByte", std::string("480 = 1\0", 8), "NUL byte"},
        MalformedCase{"TooLong", "480 = 1 #" + std::string(kMibMaxLineBytes, 'x'),
                      "longer than 1024"}),
    CaseName());

TEST(ParseMibConfig, LineNumbersCountEveryLine) {
    std::vector<Skipped> skipped;
    parse("# header\n\n480 = 1\r\nbogus\r\n\n481 = x\n", &skipped);
    ASSERT_EQ(skipped.size(), 2u);
    EXPECT_EQ(skipped[0].line, 4u);
    EXPECT_EQ(skipped[1].line, 6u);
}

TEST(ParseMibConfig, QuotedValuesAreClippedAndPrintable) {
    std::vector<Skipped> skipped;
    parse("480 = \x01" + std::string(100, 'z'), &skipped);
    ASSERT_EQ(skipped.size(), 1u);
    EXPECT_EQ(skipped[0].reason.find('\x01'), std::string::npos);
    EXPECT_LT(skipped[0].reason.size(), 80u);
}

// ---- the store over a file ----

// Standard error redirected into memory for the lifetime of the object.
class StderrCapture {
   public:
    StderrCapture() : file_(memfd_create("stderr", MFD_CLOEXEC)), saved_(dup(STDERR_FILENO)) {
        (void)std::fflush(stderr);
        dup2(file_.get(), STDERR_FILENO);
    }
    ~StderrCapture() { restore(); }
    std::string text() {
        restore();
        std::string out(size_t{64} * 1024, '\0');
        ssize_t got = pread(file_.get(), out.data(), out.size(), 0);
        out.resize(got > 0 ? static_cast<size_t>(got) : 0);
        return out;
    }

   private:
    void restore() {
        (void)std::fflush(stderr);
        if (saved_.valid()) dup2(saved_.get(), STDERR_FILENO);
        saved_.reset();
    }
    UniqueFd file_;
    UniqueFd saved_;
};

class MibStore : public ::testing::Test {
   protected:
    void SetUp() override {
        root_ = makeRoot();
        useRoot(root_);
    }
    void TearDown() override {
        unsetenv("HOSTRIX_ROOT");
        pathsReset();
        mibConfigReset();
        for (const fs::path &dir : made_) fs::remove_all(dir);
    }
    fs::path makeRoot() {
        char pattern[] = "/tmp/hostrix-mib-XXXXXX";
        if (!mkdtemp(pattern)) ADD_FAILURE() << "mkdtemp: " << std::strerror(errno);
        made_.emplace_back(pattern);
        fs::create_directories(made_.back() / "etc/hostrix");
        return made_.back();
    }
    static void useRoot(const fs::path &root) {
        setenv("HOSTRIX_ROOT", root.c_str(), 1);
        pathsReset();
        mibConfigReset();
    }
    static std::string configPath(const fs::path &root) { return root / "etc/hostrix/mib.conf"; }
    std::string configPath() const { return configPath(root_); }
    void writeConfig(const std::string &text, const fs::path &root) {
        std::ofstream(configPath(root), std::ios::trunc) << text;
    }
    void writeConfig(const std::string &text) { writeConfig(text, root_); }

    fs::path root_;
    std::vector<fs::path> made_;
};

uint32_t getU32(int id, int *result = nullptr) {
    uint32_t value = 0xdeadbeef;
    int r = mib_get_s(id, &value, 4);
    if (result) *result = r;
    return value;
}

TEST_F(MibStore, MissingFileGivesDefaultsSilently) {
    StderrCapture capture;
    uint32_t value = 7;
    EXPECT_EQ(mib_get_s(480, &value, 4), 0);
    EXPECT_EQ(value, 7u);
    EXPECT_EQ(mib_chain_total(kChainWanConnections), 0);
    EXPECT_STREQ(ELANRIF[0], "eth0.2");
    EXPECT_STREQ(ELANRIF[3], "eth0.5");
    EXPECT_EQ(ELANRIF[4], nullptr);
    EXPECT_STREQ(WLANIF[0], "wlan0");
    EXPECT_STREQ(WLANIF[1], "wlan1");
    EXPECT_EQ(capture.text(), "");
}

struct WidthCase {
    const char *name;
    int id;
    int width;
    int result;
    uint32_t written;  // the u32 after the call, prefilled 0xaaaaaaaa
};

class MibStoreWidths : public MibStore, public ::testing::WithParamInterface<WidthCase> {};

TEST_P(MibStoreWidths, WritesOnlyWhatFits) {
    writeConfig("474 = 7\n475 = 300\n480 = 0x800\n");
    uint32_t buffer = 0xaaaaaaaa;
    EXPECT_EQ(mib_get_s(GetParam().id, &buffer, GetParam().width), GetParam().result);
    EXPECT_EQ(buffer, GetParam().written);
}

// Little-endian host: a one-byte write lands in the low byte.
INSTANTIATE_TEST_SUITE_P(Settings, MibStoreWidths,
                         ::testing::Values(WidthCase{"ByteSetting", 474, 1, 1, 0xaaaaaa07},
                                           WidthCase{"ByteSettingReadWide", 474, 4, 1, 7},
                                           WidthCase{"WordSetting", 480, 4, 1, 0x800},
                                           WidthCase{"TooWideForByte", 475, 1, 0, 0xaaaaaaaa},
                                           WidthCase{"WidthTwo", 480, 2, 0, 0xaaaaaaaa},
                                           WidthCase{"WidthZero", 480, 0, 0, 0xaaaaaaaa},
                                           WidthCase{"Absent", 481, 4, 0, 0xaaaaaaaa}),
                         CaseName());

TEST_F(MibStore, TooWideValueReportedOncePerLoad) {
    writeConfig("475 = 300\n");
    uint8_t byte = 0;
    StderrCapture capture;
    mib_get_s(475, &byte, 1);
    mib_get_s(475, &byte, 1);
    writeConfig("475 = 3000\n");
    mib_get_s(475, &byte, 1);
    std::string path = configPath();
    EXPECT_EQ(capture.text(),
              "hostrix: " + path + ": setting 475 = 300 does not fit in 1 byte (not used)\n" +
                  "hostrix: " + path + ": setting 475 = 3000 does not fit in 1 byte (not used)\n");
}

TEST_F(MibStore, MalformedLinesReportedOnceWithPathAndLine) {
    writeConfig("480 = 1\n\n480x = 2\n481 = 0xZZ\n482 = 4\n");
    StderrCapture capture;
    EXPECT_EQ(getU32(480), 1u);
    EXPECT_EQ(getU32(482), 4u);
    std::string path = configPath();
    EXPECT_EQ(capture.text(), "hostrix: " + path + ":3: bad setting id \"480x\" (line skipped)\n" +
                                  "hostrix: " + path +
                                  ":4: bad number \"0xZZ\" for setting 481 (line skipped)\n");
}

TEST_F(MibStore, ChainRecordsAtTheReadersOffsets) {
    writeConfig("chain.3004 = enable=1 mode=0 ports=0x04030201\nchain.3004 = mode=2\n");
    ASSERT_EQ(mib_chain_total(kChainWanConnections), 2);
    std::array<uint8_t, kChainRecordSize> record;
    record.fill(0xaa);
    ASSERT_EQ(mib_chain_get(kChainWanConnections, 0, record.data()), 1);
    EXPECT_EQ(record[kChainEnableOffset], 1);
    EXPECT_EQ(record[kChainModeOffset], 0);
    const uint8_t ports[] = {0x01, 0x02, 0x03, 0x04};
    EXPECT_EQ(std::memcmp(record.data() + kChainPortMaskOffset, ports, 4), 0);
    size_t nonZero = 0;
    for (uint8_t byte : record) nonZero += byte != 0;
    EXPECT_EQ(nonZero, 5u);  // everything else zero-filled

    ASSERT_EQ(mib_chain_get(kChainWanConnections, 1, record.data()), 1);
    EXPECT_EQ(record[kChainModeOffset], 2);
    EXPECT_EQ(record[kChainEnableOffset], 0);
}

TEST_F(MibStore, ChainReadsOutsideTheRowsLeaveTheBuffer) {
    writeConfig("chain.3004 = enable=1\n");
    std::array<uint8_t, kChainRecordSize> record;
    record.fill(0xaa);
    EXPECT_EQ(mib_chain_get(kChainWanConnections, 1, record.data()), 0);
    EXPECT_EQ(mib_chain_get(3005, 0, record.data()), 0);
    EXPECT_EQ(mib_chain_total(3005), 0);
    EXPECT_EQ(record[kChainEnableOffset], 0xaa);
}

TEST_F(MibStore, InterfaceTablesFollowTheFile) {
    writeConfig("lan_ports = lan1 lan2\nwlan_roots = radio0\n");
    mib_chain_total(kChainWanConnections);  // any store call loads the file
    EXPECT_STREQ(ELANRIF[0], "lan1");
    EXPECT_STREQ(ELANRIF[1], "lan2");
    EXPECT_STREQ(ELANRIF[2], kMibNoInterface);
    EXPECT_STREQ(ELANRIF[3], kMibNoInterface);
    EXPECT_EQ(ELANRIF[4], nullptr);
    EXPECT_STREQ(WLANIF[0], "radio0");
    EXPECT_STREQ(WLANIF[1], kMibNoInterface);

    writeConfig("# back to the defaults\n");
    mib_chain_total(kChainWanConnections);
    EXPECT_STREQ(ELANRIF[1], "eth0.3");
    EXPECT_STREQ(ELANRIF[2], "eth0.4");
    EXPECT_STREQ(WLANIF[1], "wlan1");
}

// Ways an edited file can look; each must be noticed.
struct ChangeCase {
    const char *name;
    void (*change)(const std::string &path);
};

void setMtime(const std::string &path, time_t sec, long nsec) {
    const timespec times[2] = {{sec, nsec}, {sec, nsec}};
    utimensat(AT_FDCWD, path.c_str(), times, 0);
}

void rewriteSameSizeSameSecond(const std::string &path) {
    std::ofstream(path, std::ios::trunc) << "480 = 2\n";
    setMtime(path, 1000000000, 500);
}

void replaceKeepingSizeAndTime(const std::string &path) {
    std::string fresh = path + ".new";
    std::ofstream(fresh) << "480 = 2\n";
    setMtime(fresh, 1000000000, 0);
    (void)std::rename(fresh.c_str(), path.c_str());
}

void rewriteLonger(const std::string &path) {
    std::ofstream(path, std::ios::trunc) << "480 = 0x2\n";
}

class MibStoreReload : public MibStore, public ::testing::WithParamInterface<ChangeCase> {};

TEST_P(MibStoreReload, NoticesTheChange) {
    writeConfig("480 = 1\n");
    setMtime(configPath(), 1000000000, 0);
    EXPECT_EQ(getU32(480), 1u);
    GetParam().change(configPath());
    EXPECT_EQ(getU32(480), 2u);
}

INSTANTIATE_TEST_SUITE_P(Edits, MibStoreReload,
                         ::testing::Values(ChangeCase{"Nanoseconds", rewriteSameSizeSameSecond},
                                           ChangeCase{"NewInode", replaceKeepingSizeAndTime},
                                           ChangeCase{"Size", rewriteLonger}),
                         CaseName());

TEST_F(MibStore, RemovedFileFallsBackToDefaults) {
    writeConfig("480 = 1\nlan_ports = lan1\n");
    EXPECT_EQ(getU32(480), 1u);
    fs::remove(configPath());
    int result = -1;
    getU32(480, &result);
    EXPECT_EQ(result, 0);
    EXPECT_STREQ(ELANRIF[0], "eth0.2");
}

TEST_F(MibStore, ResetForcesAReadOfAnUnchangedLookingFile) {
    writeConfig("480 = 1\n");
    setMtime(configPath(), 1000000000, 0);
    EXPECT_EQ(getU32(480), 1u);
    std::ofstream(configPath(), std::ios::trunc) << "480 = 2\n";
    setMtime(configPath(), 1000000000, 0);  // same size, same time: invisible to stat
    EXPECT_EQ(getU32(480), 1u);
    mibConfigReset();
    EXPECT_EQ(getU32(480), 2u);
}

TEST_F(MibStore, RootPrefixHonouredAfterPathsReset) {
    writeConfig("480 = 1\n");
    fs::path other = makeRoot();
    writeConfig("480 = 2\n", other);
    EXPECT_EQ(getU32(480), 1u);
    setenv("HOSTRIX_ROOT", other.c_str(), 1);
    pathsReset();
    EXPECT_EQ(getU32(480), 2u);
}

TEST_F(MibStore, UnreadableFileReportedOnceAndDefaultsUsed) {
    fs::create_directory(configPath());  // readable by root too, yet not a file
    StderrCapture capture;
    int result = -1;
    getU32(480, &result);
    getU32(480, &result);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(capture.text(),
              "hostrix: " + configPath() + ": not a regular file (using defaults)\n");
}

TEST_F(MibStore, OversizedFileKeepsWholeLinesWithinTheLimit) {
    std::string text = "480 = 1\n";
    std::string filler = "# " + std::string(1000, '-') + "\n";
    while (text.size() < size_t{64} * 1024 - 4) text += filler;
    text += "481 = 2\n";  // straddles the limit
    text += "482 = 3\n";
    writeConfig(text);
    StderrCapture capture;
    int result = -1;
    EXPECT_EQ(getU32(480), 1u);
    getU32(481, &result);
    EXPECT_EQ(result, 0);
    getU32(482, &result);
    EXPECT_EQ(result, 0);
    EXPECT_NE(capture.text().find("larger than 65536 bytes"), std::string::npos);
}

TEST_F(MibStore, WlanRecordCarriesTheSsid) {
    std::string longest(kMibMaxSsidBytes, 'L');
    writeConfig("ssid.wlan0 = Home Net\nssid.wlan1 = " + longest + "\n");
    std::array<uint8_t, kWlanConfigSize> record;
    record.fill(0xaa);
    int index = -1;
    ASSERT_EQ(mib_chain_get_wlan("wlan0", record.data(), &index), 0);
    EXPECT_EQ(index, 0);
    EXPECT_STREQ(reinterpret_cast<const char *>(record.data() + kWlanConfigSsidOffset), "Home Net");
    EXPECT_EQ(record[0], 0);
    EXPECT_EQ(record[kWlanConfigSize - 1], 0);

    ASSERT_EQ(mib_chain_get_wlan("wlan1", record.data(), nullptr), 0);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(record.data() + kWlanConfigSsidOffset)),
              longest);
}

TEST_F(MibStore, WlanRecordOfAnInterfaceWithoutSsid) {
    writeConfig("ssid.wlan0 = Home\n");
    std::array<uint8_t, kWlanConfigSize> record;
    record.fill(0xaa);
    int index = 7;
    EXPECT_EQ(mib_chain_get_wlan("wlan0-vap0", record.data(), &index), -1);
    EXPECT_EQ(mib_chain_get_wlan(nullptr, record.data(), &index), -1);
    EXPECT_EQ(index, 7);
    EXPECT_EQ(record[kWlanConfigSsidOffset], 0xaa);
}

// ---- switch port ids, which come from the same file ----

TEST_F(MibStore, PortIdsFromTheFile) {
    writeConfig("lan_ports = eth0.2 eth0.3\nphy.eth0.2 = 5\nlogic.eth0.2 = 1\nphy.eth0.4 = 9\n");
    EXPECT_EQ(zvt_lan_phyID_get_by_if_name("eth0.2"), 5);
    EXPECT_EQ(zvt_lan_LogID_get_by_if_name("eth0.2"), 1);
    EXPECT_EQ(zvt_lan_LogID_get_by_if_name("eth0.3"), -1);
    EXPECT_EQ(zvt_lan_phyID_get_by_if_name(nullptr), -1);
    EXPECT_EQ(zvt_port_get_lan_phyID(0), 5);
    EXPECT_EQ(zvt_port_get_lan_phyID(1), -1);  // a port without a phy id
    EXPECT_EQ(zvt_port_get_lan_phyID(2), -1);  // phy.eth0.4 is set, but port 3 is not eth0.4
    EXPECT_EQ(zvt_port_get_lan_phyID(4), -1);
    EXPECT_EQ(zvt_port_get_lan_phyID(-1), -1);
}

TEST_F(MibStore, PortStateOfAnUnknownPhyIsUnavailable) {
    writeConfig("phy.eth0.2 = 5\n");
    int link = 9;
    int speed = 9;
    int duplex = 9;
    EXPECT_EQ(zv_port_link_get(6, &link), -1);
    EXPECT_EQ(zv_port_speedDuplex_get(-1, &speed, &duplex), -1);
    EXPECT_EQ(link, 9);
    EXPECT_EQ(speed, 9);
}

TEST_F(MibStore, PortLinkReadFromSysfs) {
    int carrier = -1;
    std::ifstream("/sys/class/net/lo/carrier") >> carrier;
    if (carrier < 0) GTEST_SKIP() << "the kernel gives no carrier state for lo here";
    writeConfig("lan_ports = lo\nphy.lo = 3\n");
    int link = 9;
    EXPECT_EQ(zv_port_link_get(3, &link), 0);
    EXPECT_EQ(link, carrier);
}

}  // namespace
