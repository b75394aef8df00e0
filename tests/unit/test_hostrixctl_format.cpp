// hostrixctl's pure parts: command-line words, request and reply records, output.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <regex>
#include <string>
#include <vector>

#include "args.h"
#include "format.h"
#include "protocol.h"

namespace {

TEST(CtlParseMac, AcceptsBothSeparatorsAnyCaseAndNothingElse) {
    struct Case {
        const char *text;
        bool valid;
    };
    const Case cases[] = {
        {"aa:bb:cc:dd:ee:ff", true},     {"AA-BB-CC-DD-EE-FF", true}, {"0a:1B:2c:3D:4e:5F", true},
        {"aa:bb-cc:dd:ee:ff", false},  // mixed separators
        {"a:bb:cc:dd:ee:ff", false},   // one digit in a group
        {"aa:bb:cc:dd:ee:ff:00", false}, {"aa:bb:cc:dd:ee:f", false}, {"aa:bb:cc:dd:ee:fg", false},
        {"aa.bb.cc.dd.ee.ff", false},    {"aabbccddeeff", false},     {"", false},
        {" aa:bb:cc:dd:ee:f", false},
    };
    for (const Case &c : cases) EXPECT_EQ(parseMac(c.text).has_value(), c.valid) << c.text;
    MacAddress expected = {0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x5f};
    EXPECT_EQ(parseMac("0A-1b-2C-3d-4E-5f"), expected);
    EXPECT_EQ(formatMac(expected.data()), "0a:1b:2c:3d:4e:5f");
}

TEST(CtlParseNumber, DecimalOrHexWithinTheLimitWithoutWrapping) {
    struct Case {
        const char *text;
        uint32_t max;
        std::optional<uint32_t> value;
    };
    const Case cases[] = {
        {"0", 256, 0u},
        {"256", 256, 256u},
        {"257", 256, std::nullopt},
        {"0x10", 256, 16u},
        {"0XfF", 255, 255u},
        {"0x", 256, std::nullopt},
        {"-1", 256, std::nullopt},
        {" 1", 256, std::nullopt},
        {"1a", 256, std::nullopt},
        {"", 256, std::nullopt},
        {"4294967295", UINT32_MAX, UINT32_MAX},
        {"4294967296", UINT32_MAX, std::nullopt},
        {"99999999999999999999", UINT32_MAX, std::nullopt},
        {"0x100000000", UINT32_MAX, std::nullopt},
    };
    for (const Case &c : cases) EXPECT_EQ(parseNumber(c.text, c.max), c.value) << c.text;
}

TEST(CtlParseSeconds, WholeSecondsWithUpToThreeDecimals) {
    EXPECT_EQ(parseSeconds("1"), 1000u);
    EXPECT_EQ(parseSeconds("0.25"), 250u);
    EXPECT_EQ(parseSeconds("0.001"), 1u);
    EXPECT_EQ(parseSeconds("2.5"), 2500u);
    EXPECT_EQ(parseSeconds("3600"), 3600000u);
    for (const char *bad : {"1.", ".5", "0.0001", "3601", "1,5", "x", ""})
        EXPECT_FALSE(parseSeconds(bad).has_value()) << bad;
}

CommandLine parsed(std::vector<std::string_view> words, Outcome *outcome = nullptr) {
    CommandLine line;
    Outcome result = parseCommandLine(words, line);
    if (outcome) *outcome = result;
    return line;
}

TEST(CtlCommandLine, OptionsAnywhereAndDoubleDashEndsThem) {
    CommandLine line = parsed({"--json", "watch", "--count", "3", "--interval=0.5"});
    EXPECT_EQ(line.command, "watch");
    EXPECT_TRUE(line.args.empty());
    EXPECT_TRUE(line.json);
    EXPECT_EQ(line.count, 3u);
    EXPECT_EQ(line.intervalMs, 500u);
    EXPECT_EQ(line.seen, unsigned{kOptJson | kOptCount | kOptInterval});

    line = parsed({"set", "brand", "aa:bb:cc:dd:ee:ff", "--", "--json"});
    EXPECT_FALSE(line.json);
    EXPECT_EQ(line.args, (std::vector<std::string>{"brand", "aa:bb:cc:dd:ee:ff", "--json"}));

    EXPECT_TRUE(parsed({"list", "-h"}).help);
    EXPECT_EQ(parsed({"log", "-"}).args, std::vector<std::string>{"-"});
}

TEST(CtlCommandLine, BadOptionsAreUsageErrors) {
    for (std::vector<std::string_view> words : {std::vector<std::string_view>{"list", "--nope"},
                                                {"watch", "--count"},
                                                {"watch", "--count", "x"},
                                                {"list", "--json=1"},
                                                {"watch", "--interval", "0"}}) {
        Outcome outcome;
        parsed(words, &outcome);
        EXPECT_EQ(outcome.code, kExitUsage) << words.back();
        EXPECT_FALSE(outcome.message.empty());
    }
}

ctrlMsg_t requestWith(const MacAddress &mac, std::string_view text = {}) {
    ctrlMsg_t msg = makeRequest(CMD_SET_BRAND);
    putMac(msg, mac);
    if (!text.empty()) putText(msg, text);
    return msg;
}

TEST(CtlRequest, FailureStatusReplyWantedAndTextCutTo63Bytes) {
    ctrlMsg_t msg = requestWith({0x00, 0x11, 0x22, 0x33, 0x44, 0x55}, std::string(70, 'x'));
    EXPECT_EQ(msg.status, kCtrlStatusFailed);
    EXPECT_EQ(msg.needReply, 1);
    EXPECT_EQ(msg.cmd, CMD_SET_BRAND);
    EXPECT_EQ(msg.data[5], 0x55);
    EXPECT_EQ(strnlen(reinterpret_cast<char *>(msg.data + kCtrlTextOffset), 100), 63u);
}

// The daemon's printable check runs from the MAC up to the first 00, 0a or 0d.
TEST(CtlRequest, PredictsWhichRequestsTheDaemonSkips) {
    struct Case {
        MacAddress mac;
        const char *text;
        std::optional<size_t> rejected;
    };
    const Case cases[] = {
        {{0x00, 0xff, 0x01, 0x02, 0x03, 0x04}, "", std::nullopt},  // a leading 00 ends the check
        {{0x1c, 0x41, 0x42, 0x43, 0x44, 0x45}, "", 0u},
        {{0x41, 0xa4, 0x42, 0x43, 0x44, 0x45}, "", 1u},
        {{0x41, 0x42, 0x0a, 0x02, 0x44, 0x45}, "", std::nullopt},  // LF ends it before 0x02
        {{0x41, 0x42, 0x43, 0x44, 0x45, 0x46}, "Acme", std::nullopt},
        {{0x41, 0x42, 0x43, 0x44, 0x45, 0x46}, "caf\xc3\xa9", 9u},  // the text is checked too
        {{0x41, 0x42, 0x43, 0x00, 0x45, 0x46}, "caf\xc3\xa9", std::nullopt},
    };
    for (const Case &c : cases)
        EXPECT_EQ(firstRejectedByte(requestWith(c.mac, c.text)), c.rejected)
            << formatMac(c.mac.data()) << " " << c.text;
}

lanHostInfo_t hostWithMac(uint8_t last) {
    lanHostInfo_t host{};
    host.mac[0] = 0x02;
    host.mac[5] = last;
    return host;
}

ctrlMsg_t replyWith(const std::vector<lanHostInfo_t> &hosts) {
    ctrlMsg_t msg{};
    for (size_t i = 0; i < hosts.size(); ++i)
        std::memcpy(msg.data + i * kLanHostInfoSize, &hosts[i], kLanHostInfoSize);
    return msg;
}

TEST(CtlRecords, ReplyListEndsAtTheFirstZeroMacOrAfterFour) {
    std::vector<lanHostInfo_t> four = {hostWithMac(1), hostWithMac(2), hostWithMac(3),
                                       hostWithMac(4)};
    EXPECT_EQ(repliedRecords(replyWith(four)).size(), 4u);
    EXPECT_EQ(repliedRecords(replyWith({hostWithMac(1), hostWithMac(2)})).size(), 2u);
    EXPECT_TRUE(repliedRecords(replyWith({})).empty());
    std::vector<lanHostInfo_t> gap = {hostWithMac(1), lanHostInfo_t{}, hostWithMac(3)};
    std::vector<lanHostInfo_t> got = repliedRecords(replyWith(gap));
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].mac[5], 1);
}

TEST(CtlRecords, FileRecordsIgnoreATrailingPartialRecordAndFindByMac) {
    lanHostInfo_t hosts[2] = {hostWithMac(7), hostWithMac(8)};
    std::string bytes(reinterpret_cast<const char *>(hosts), sizeof hosts);
    bytes += std::string(100, 'z');
    std::vector<lanHostInfo_t> records = fileRecords(bytes);
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[1].mac[5], 8);
    EXPECT_EQ(findHost(records, MacAddress{0x02, 0, 0, 0, 0, 8}), &records[1]);
    EXPECT_EQ(findHost(records, MacAddress{0x02, 0, 0, 0, 0, 9}), nullptr);
    EXPECT_TRUE(fileRecords("").empty());
    EXPECT_TRUE(fileRecords(std::string(943, 'a')).empty());
}

TEST(CtlJson, EscapesEveryByteThatIsNotPrintableAscii) {
    struct Case {
        std::string text;
        const char *json;
    };
    const Case cases[] = {
        {"hx-h1", "\"hx-h1\""},
        {"say \"hi\" \\o/", "\"say \\\"hi\\\" \\\\o/\""},
        {"a\nb\tc", "\"a\\u000ab\\u0009c\""},
        {"\x7f", "\"\\u007f\""},
        {"caf\xc3\xa9", "\"caf\\u00c3\\u00a9\""},
        {std::string("\0x", 2), "\"\\u0000x\""},
    };
    for (const Case &c : cases) EXPECT_EQ(jsonQuote(c.text), c.json) << c.text;
}

TEST(CtlFormat, AddressesAndDurations) {
    EXPECT_EQ(ipv4Text(htonl(0x0a4d000a)), "10.77.0.10");
    EXPECT_EQ(ipv4Text(0), "0.0.0.0");
    uint8_t v6[16] = {0xfd, 0x77, 0, 0, 0, 0, 0, 0, 0, 0x77, 0, 0xff, 0xfe, 0, 0, 1};
    EXPECT_EQ(ipv6Text(v6), "fd77::77:ff:fe00:1");
    EXPECT_EQ(durationText(0), "00:00:00");
    EXPECT_EQ(durationText(3661), "01:01:01");
    EXPECT_EQ(durationText(90061), "1d 01:01:01");
}

lanHostInfo_t sampleHost() {
    lanHostInfo_t host = hostWithMac(1);
    std::memset(host.devName, 'n', sizeof host.devName);  // full field, no NUL
    host.ip = htonl(0x0a4d000a);
    std::strcpy(host.ifName, "eth0.2");
    host.port = 1;
    host.rxBytes = 1ull << 40;
    host.rssi = -61;
    std::strcpy(host.ssidName, "caf\xc3\xa9");
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
    EXPECT_NE(json.find("\"devName\":\"" + std::string(kHostTextLen, 'n') + "\","),
              std::string::npos);
    EXPECT_NE(json.find("\"ip\":\"10.77.0.10\""), std::string::npos);
    EXPECT_NE(json.find("\"rxBytes\":1099511627776,"), std::string::npos);
    EXPECT_NE(json.find("\"ssidName\":\"caf\\u00c3\\u00a9\""), std::string::npos);
    EXPECT_NE(json.find("\"rssi\":-61}"), std::string::npos);
    std::vector<std::string> eventKeys = jsonKeys(eventJson(0, "left", sampleHost()));
    EXPECT_EQ(std::vector<std::string>(eventKeys.begin(), eventKeys.begin() + 3),
              (std::vector<std::string>{"event", "time", "mac"}));
}

TEST(CtlFormat, TableAlignsColumnsAndHidesControlBytes) {
    lanHostInfo_t wired = sampleHost();
    lanHostInfo_t wireless = hostWithMac(2);
    std::strcpy(wireless.devName, "ph\x1b[2Jone");
    wireless.connectionType = CONNECTION_WIRELESS;
    wireless.port = 3;
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
    EXPECT_EQ(hostTable({}, "no hosts online"), "no hosts online\n");
}

TEST(CtlFormat, EventLineShowsKindMacAddressNameAndInterface) {
    std::string line = eventLine(0, "NEW", sampleHost());
    std::regex shape(
        R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d NEW     02:00:00:00:00:01 10\.77\.0\.10 n{64} eth0\.2$)");
    EXPECT_TRUE(std::regex_match(line, shape)) << line;
    EXPECT_NE(eventLine(0, "CHANGED", hostWithMac(3)).find(" CHANGED 02:00:00:00:00:03 - - -"),
              std::string::npos);
}

}  // namespace
