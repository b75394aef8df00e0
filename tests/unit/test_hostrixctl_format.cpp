// hostrixctl's pure parts: command-line words, request and reply records, output.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <regex>
#include <string>
#include <tuple>
#include <vector>

#include "args.h"
#include "format.h"
#include "protocol.h"

namespace {

TEST(CtlParseMac, AcceptsBothSeparatorsAnyCaseAndNothingElse) {
    const MacAddress expected = {0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x5f};
    for (const char *good : {"0a:1b:2c:3d:4e:5f", "0A-1B-2C-3D-4E-5F", "0a:1B:2c:3D:4e:5F"})
        EXPECT_EQ(parseMac(good), expected) << good;
    for (const char *bad : {"aa:bb-cc:dd:ee:ff", "aa.bb.cc.dd.ee.ff", "aa:bb:cc:dd:ee:fg",
                            "aa:bb:cc:dd:ee:f", "aa:bb:cc:dd:ee:ff:00", ""})
        EXPECT_FALSE(parseMac(bad).has_value()) << bad;
    EXPECT_EQ(formatMac(expected.data()), "0a:1b:2c:3d:4e:5f");
}

TEST(CtlParseNumber, DecimalOrHexWithinTheLimitWithoutWrapping) {
    EXPECT_EQ(parseNumber("256", 256), 256u);
    EXPECT_EQ(parseNumber("0XfF", 255), 255u);
    EXPECT_EQ(parseNumber("4294967295", UINT32_MAX), UINT32_MAX);
    for (const char *bad : {"257", "0x101", "0x", "-1", "1a", ""})
        EXPECT_FALSE(parseNumber(bad, 256).has_value()) << bad;
    for (const char *bad : {"4294967296", "99999999999999999999", "0x100000000"})
        EXPECT_FALSE(parseNumber(bad, UINT32_MAX).has_value()) << bad;
}

TEST(CtlParseSeconds, WholeSecondsWithUpToThreeDecimals) {
    EXPECT_EQ(parseSeconds("0.001"), 1u);
    EXPECT_EQ(parseSeconds("2.5"), 2500u);
    EXPECT_EQ(parseSeconds("3600"), 3600000u);
    for (const char *bad : {"1.", ".5", "0.0001", "3601", "1.5x", "x", ""})
        EXPECT_FALSE(parseSeconds(bad).has_value()) << bad;
}

TEST(CtlCommandLine, OptionsAnywhereDoubleDashEndsThemBadOnesAreUsageErrors) {
    CommandLine line;
    ASSERT_TRUE(parseCommandLine({"--json", "watch", "--count", "3", "--interval=0.5"}, line).ok());
    EXPECT_EQ(line.command, "watch");
    EXPECT_TRUE(line.args.empty());
    EXPECT_TRUE(line.json);
    EXPECT_EQ(line.count, 3u);
    EXPECT_EQ(line.intervalMs, 500u);
    EXPECT_EQ(line.seen, unsigned{kOptJson | kOptCount | kOptInterval});

    CommandLine dashes;
    ASSERT_TRUE(parseCommandLine({"-h", "set", "brand", "-", "--", "--json", "-h"}, dashes).ok());
    EXPECT_TRUE(dashes.help);
    EXPECT_FALSE(dashes.json);
    EXPECT_EQ(dashes.args, (std::vector<std::string>{"brand", "-", "--json", "-h"}));

    const std::vector<std::string_view> bad[] = {{"list", "--nope"},
                                                 {"watch", "--count"},
                                                 {"watch", "--count", "x"},
                                                 {"list", "--json=1"},
                                                 {"watch", "--interval", "0"}};
    CommandLine scratch;
    for (const std::vector<std::string_view> &words : bad)
        EXPECT_EQ(parseCommandLine(words, scratch).code, kExitUsage) << words.back();
}

// The daemon's printable check runs from the MAC up to the first 00, 0a or 0d.
TEST(CtlRequest, PredictsWhichRequestsTheDaemonSkips) {
    // MAC, text, and the offset of the first byte the daemon rejects.
    const std::tuple<MacAddress, const char *, std::optional<size_t>> cases[] = {
        {{0x00, 0xff, 0x01, 0x02, 0x03, 0x04}, "", std::nullopt},  // a leading 00 ends the check
        {{0x1c, 0x41, 0x42, 0x43, 0x44, 0x45}, "", 0u},
        {{0x41, 0xa4, 0x42, 0x43, 0x44, 0x45}, "", 1u},
        {{0x41, 0x42, 0x0a, 0x02, 0x44, 0x45}, "", std::nullopt},  // LF ends it before 0x02
        {{0x41, 0x42, 0x43, 0x44, 0x45, 0x46}, "Acme", std::nullopt},
        {{0x41, 0x42, 0x43, 0x44, 0x45, 0x46}, "caf\xc3\xa9", 9u},  // the text is checked too
    };
    for (const auto &[mac, text, rejected] : cases) {
        ctrlMsg_t msg = makeRequest(CMD_SET_BRAND);
        putMac(msg, mac);
        putText(msg, text);
        EXPECT_EQ(firstRejectedByte(msg), rejected) << formatMac(mac.data()) << " " << text;
    }
}

lanHostInfo_t hostWithMac(uint8_t last) {
    lanHostInfo_t host{};
    host.mac[0] = 0x02;
    host.mac[5] = last;
    return host;
}

TEST(CtlRecords, ReplyListEndsAtTheFirstZeroMacOrAfterFour) {
    const lanHostInfo_t hosts[] = {hostWithMac(1), hostWithMac(2), hostWithMac(3), hostWithMac(4)};
    ctrlMsg_t reply{};
    std::memcpy(reply.data, hosts, sizeof hosts);
    EXPECT_EQ(repliedRecords(reply).size(), 4u);
    std::memset(reply.data + kLanHostInfoSize, 0, kLanHostInfoSize);  // a gap after the first
    EXPECT_EQ(repliedRecords(reply).size(), 1u);
}

TEST(CtlJson, EscapesEveryByteThatIsNotPrintableAscii) {
    const std::pair<std::string, const char *> cases[] = {
        {"hx-h1", "\"hx-h1\""},
        {"say \"hi\" \\o/", "\"say \\\"hi\\\" \\\\o/\""},
        {"a\nb\tc", "\"a\\u000ab\\u0009c\""},
        {"\x7f", "\"\\u007f\""},
        {"caf\xc3\xa9", "\"caf\\u00c3\\u00a9\""},
        {std::string("\0x", 2), "\"\\u0000x\""},
    };
    for (const auto &[text, json] : cases) EXPECT_EQ(jsonQuote(text), json) << text;
}

lanHostInfo_t sampleHost() {
    lanHostInfo_t host = hostWithMac(1);
    std::memset(host.devName, 'n', sizeof host.devName);  // full field, no NUL
    host.devType = 7;                                     // the byte after it
    host.ip = htonl(0x0a4d000a);
    std::strcpy(host.ifName, "eth0.2");
    host.port = 1;
    const uint8_t v6[16] = {0xfd, 0x77, 0, 0, 0, 0, 0, 0, 0, 0x77, 0, 0xff, 0xfe, 0, 0, 1};
    std::memcpy(host.ipv6, v6, sizeof v6);
    host.onLineTime = 90061;
    host.rxBytes = 1ull << 40;
    host.rssi = -61;
    return host;
}

std::vector<std::string> jsonKeys(const std::string &json) {
    std::vector<std::string> keys;
    std::regex key("[{,]\"([A-Za-z_0-9]+)\":");
    for (auto it = std::sregex_iterator(json.begin(), json.end(), key);
         it != std::sregex_iterator(); ++it)
        keys.push_back((*it)[1]);
    return keys;
}

TEST(CtlFormat, HostJsonNamesEveryRecordFieldInRecordOrder) {
    // clang-format off
    const std::vector<std::string> expected = {
        "mac", "agentMac", "devName", "devType", "ip", "ipv6", "connectionType", "port",
        "phy_port", "ifName", "brand", "model", "os", "onLineTime", "upRate", "downRate",
        "rxBytes", "txBytes", "firstConnect", "disConnect", "latestActiveTimeSynced",
        "latestActiveTime", "disConnectTime", "controlled", "internetAccess", "otherAccess",
        "rx_packets", "tx_packets", "rx_errors", "rx_dropped", "offline", "dhcpLeaseFound",
        "arpReqIp", "arpRetryCnt", "dhcpClientState", "ipSource", "firstGotIP", "isWifi",
        "wifiAttr", "wirelessMode", "negRxRate", "negTxRate", "ssidName", "rssi"};
    // clang-format on
    std::string json = hostJson(sampleHost());
    EXPECT_EQ(jsonKeys(json), expected);
    // A text field without a NUL ends with the field; numbers keep 64 bits and their sign.
    EXPECT_NE(json.find("\"devName\":\"" + std::string(kHostTextLen, 'n') +
                        "\",\"devType\":7,\"ip\":\"10.77.0.10\","),
              std::string::npos);
    EXPECT_NE(json.find("\"rxBytes\":1099511627776,"), std::string::npos);
    EXPECT_NE(json.find("\"rssi\":-61}"), std::string::npos);
    std::vector<std::string> eventKeys = jsonKeys(eventJson(0, "left", sampleHost()));
    EXPECT_EQ(std::vector<std::string>(eventKeys.begin(), eventKeys.begin() + 3),
              (std::vector<std::string>{"event", "time", "mac"}));
}

TEST(CtlFormat, TableAlignsColumnsAndHidesControlBytes) {
    lanHostInfo_t wireless = hostWithMac(2);
    std::strcpy(wireless.devName, "ph\x1b[2Jone");
    wireless.connectionType = CONNECTION_WIRELESS;
    wireless.port = 3;
    lanHostInfo_t wired = sampleHost();
    wired.upRate = 1000;
    wired.downRate = 1536;
    std::string table = hostTable({wired, wireless}, "none");
    std::vector<std::string> lines;
    for (size_t at = 0, end; (end = table.find('\n', at)) != std::string::npos; at = end + 1)
        lines.push_back(table.substr(at, end - at));
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].find("IPV4"), lines[1].find("10.77.0.10"));
    EXPECT_EQ(lines[0].find("IPV4"), lines[2].find("-  "));
    EXPECT_EQ(lines[0].find("PORT"), lines[1].find("LAN1"));
    EXPECT_EQ(lines[0].find("PORT"), lines[2].find("SSID3"));
    EXPECT_NE(lines[2].find("ph?[2Jone"), std::string::npos);
    EXPECT_NE(lines[1].find("  1d 01:01:01  1000 Kib/s  1.5 Mib/s  fd77::77:ff:fe00:1"),
              std::string::npos)
        << lines[1];
}

TEST(CtlFormat, EventLineShowsKindMacAddressNameAndInterface) {
    std::string line = eventLine(0, "NEW", sampleHost());
    std::regex shape(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d NEW     02:00:00:00:00:01 10\.77\.0\.10 )"
                     R"(n{64} eth0\.2 LAN1 fd77::77:ff:fe00:1$)");
    EXPECT_TRUE(std::regex_match(line, shape)) << line;
    // Empty fields show as "-", and no IPv6 address at all; 19 characters of time come first.
    EXPECT_EQ(eventLine(0, "CHANGED", hostWithMac(3)).substr(19),
              " CHANGED 02:00:00:00:00:03 - - - -");
}

}  // namespace
