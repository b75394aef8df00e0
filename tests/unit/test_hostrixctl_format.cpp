// hostrixctl's pure parts: command-line words, request and reply records, output.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <regex>

#include "agent_stream.h"
#include "args.h"
#include "format.h"
#include "protocol.h"

namespace {

constexpr std::nullopt_t kBad = std::nullopt;

TEST(CtlParse, MacsNumbersAndSecondsTakeWellFormedTextWithinBoundsOnly) {
    const MacAddress mac = {0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x5f};
    for (const char *text : {"0A-1B-2C-3D-4E-5F", "0a:1B:2c:3D:4e:5F"})
        EXPECT_EQ(parseMac(text), mac);
    EXPECT_EQ(formatMac(mac.data()), "0a:1b:2c:3d:4e:5f");
    for (const char *bad : {"0a:1b-2c:3d:4e:5f", "0a.1b.2c.3d.4e.5f", "0a:1b:2c:3d:4e:5g",
                            "0a:1b:2c:3d:4e:5", "0a:1b:2c:3d:4e:5f:00", ""})
        EXPECT_FALSE(parseMac(bad)) << bad;
    const std::tuple<const char *, uint32_t, std::optional<uint32_t>> numbers[] = {
        {"256", 256, 256u},       {"0XfF", 255, 255u},  {"4294967295", UINT32_MAX, UINT32_MAX},
        {"257", 256, kBad},       {"0x101", 256, kBad}, {"0x", 256, kBad},
        {"-1", 256, kBad},        {"1a", 256, kBad},    {"", 256, kBad},
        {"4294967296", UINT32_MAX, kBad}, {"0x100000000", UINT32_MAX, kBad}};
    for (const auto &[text, max, value] : numbers) EXPECT_EQ(parseNumber(text, max), value) << text;
    const std::pair<const char *, std::optional<uint32_t>> seconds[] = {
        {"0.001", 1u}, {"2.5", 2500u}, {"3600", 3600000u}, {"1.", kBad}, {".5", kBad},
        {"0.0001", kBad}, {"3601", kBad}, {"1.5x", kBad}, {"", kBad}};
    for (const auto &[text, ms] : seconds) EXPECT_EQ(parseSeconds(text), ms) << text;
}

TEST(CtlCommandLine, OptionsAnywhereDoubleDashEndsThemBadOnesAreUsageErrors) {
    CommandLine line;
    ASSERT_TRUE(parseCommandLine({"--json", "watch", "--count", "3", "--interval=0.5"}, line).ok());
    EXPECT_EQ(std::tie(line.command, line.json, line.count, line.intervalMs, line.seen),
              std::make_tuple("watch", true, 3u, 500u, kOptJson | kOptCount | kOptInterval));
    CommandLine dashes;
    ASSERT_TRUE(parseCommandLine({"-h", "set", "brand", "-", "--", "--json", "-h"}, dashes).ok());
    EXPECT_TRUE(dashes.help && !dashes.json);
    EXPECT_EQ(dashes.args, (std::vector<std::string>{"brand", "-", "--json", "-h"}));
    const std::vector<std::string_view> bad[] = {{"list", "--nope"}, {"watch", "--count"},
                                                 {"watch", "--count", "x"}, {"list", "--json=1"},
                                                 {"watch", "--interval", "0"}};
    for (const std::vector<std::string_view> &words : bad)
        EXPECT_EQ(parseCommandLine(words, line).code, kExitUsage) << words.back();
}

// The request fails unless answered, carries what the daemon keeps of the text, and
// predicts the daemon's check of the text after the MAC (up to 00, 0a or 0d).
TEST(CtlRequest, CarriesTheKeptTextAndPredictsWhichRequestsTheDaemonSkips) {
    ctrlMsg_t msg = makeRequest(CMD_SET_BRAND);
    EXPECT_EQ(std::tuple(msg.status, msg.needReply, msg.cmd), std::tuple(1u, 1, CMD_SET_BRAND));
    putText(msg, std::string(70, 'b'));
    EXPECT_EQ(reinterpret_cast<const char *>(msg.data + kCtrlTextOffset), std::string(63, 'b'));
    const std::tuple<MacAddress, const char *, std::optional<size_t>> cases[] = {
        {{0xa4, 0x83, 0xe7, 0x12, 0x34, 0x56}, "", kBad},  // the MAC is never checked
        {{0x1c, 0x41, 0x42, 0x43, 0x44, 0x45}, "ok\x7f", 8u},
        {{0x41, 0x42, 0x43, 0x44, 0x45, 0x46}, "caf\xc3\xa9", 9u},
        {{0x41, 0x42, 0x43, 0x44, 0x45, 0x46}, "a\n\x01", kBad}};
    for (const auto &[mac, text, rejected] : cases) {
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
    EXPECT_EQ(fileRecords(std::string(3 * kLanHostInfoSize - 1, 'x')).size(), 2u);
}

// Bytes from the LAN, as the terminal text and as the JSON string show them.
TEST(CtlEscape, EveryByteOutsidePrintableAsciiIsEscapedReversiblyInTextAndJson) {
    const std::tuple<std::string, std::string, std::string> cases[] = {
        {"h1 \"hi\" ~", R"(h1 "hi" ~)", R"("h1 \"hi\" ~")"},
        {"\\x1b", R"(\\x1b)", R"("\\x1b")"},  // not to be mistaken for an ESC
        {std::string("\0\t\x1b\x1f\x7f", 5), R"(\x00\x09\x1b\x1f\x7f)",
         R"("\u0000\u0009\u001b\u001f\u007f")"},
        {"caf\xc3\xa9\xff", R"(caf\xc3\xa9\xff)", R"("caf\u00c3\u00a9\u00ff")"}};
    for (const auto &[bytes, text, json] : cases)
        EXPECT_EQ(std::pair(escapeText(bytes), jsonQuote(bytes)), std::pair(text, json));
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

// Scripts read the members by the record's names, in record order.
TEST(CtlFormat, HostJsonNamesEveryRecordFieldInRecordOrder) {
    std::string json = hostJson(sampleHost()), keys;
    const std::regex key("[{,]\"([A-Za-z_0-9]+)\":");
    for (std::sregex_iterator it(json.begin(), json.end(), key), end; it != end; ++it)
        keys += (*it)[1].str() + " ";
    EXPECT_EQ(keys,
              "mac agentMac devName devType ip ipv6 connectionType port phy_port ifName brand "
              "model os onLineTime upRate downRate rxBytes txBytes firstConnect disConnect "
              "latestActiveTimeSynced latestActiveTime disConnectTime controlled internetAccess "
              "otherAccess rx_packets tx_packets rx_errors rx_dropped offline dhcpLeaseFound "
              "arpReqIp arpRetryCnt dhcpClientState ipSource firstGotIP isWifi wifiAttr "
              "wirelessMode negRxRate negTxRate ssidName rssi ");
    for (const std::string &part : {"\"devName\":\"" + std::string(kHostTextLen, 'n') +
                                         "\",\"devType\":7,\"ip\":\"10.77.0.10\",",
                                     std::string("\"rxBytes\":1099511627776,"),
                                     std::string("\"rssi\":-61}")})
        EXPECT_NE(json.find(part), std::string::npos) << part;
    EXPECT_EQ(eventJson(0, "left", sampleHost()).rfind("{\"event\":\"left\",\"time\":\"", 0), 0u);
}

// watch's lines: time, kind, MAC, address, name, interface, port, SSID, IPv6; LAN text
// escaped so that it cannot forge a line.
TEST(CtlFormat, EventLinesShowTheHostAndEscapeLanText) {
    const std::regex line(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d NEW     02:00:00:00:00:01 )"
                          R"(10\.77\.0\.10 n{64} eth0\.2 LAN1 fd77::77:ff:fe00:1$)");
    EXPECT_TRUE(std::regex_match(eventLine(0, "NEW", sampleHost()), line));
    lanHostInfo_t forged = hostWithMac(4);
    std::strcpy(forged.devName, "tv\n2026-11-23 NEW");
    std::strcpy(forged.ssidName, "caf\xc3\xa9\\");
    EXPECT_EQ(eventLine(0, "LEFT", forged).substr(19),
              R"( LEFT    02:00:00:00:00:04 - tv\x0a2026-11-23 NEW - - ssid=caf\xc3\xa9\\)");
}

}  // namespace

// watch through hostrix-agent reads the agent's lines back into records.
TEST(AgentStream, ReadsEventsBackWithTheirEscapes) {
    const std::string line =
        "{\"type\":\"event\",\"seq\":5,\"time\":\"2026-11-23T10:00:00Z\",\"event\":\"left\","
        "\"host\":{\"mac\":\"0a:77:00:00:00:01\",\"devName\":\"tv\\u000a\\\"x\\\\\","
        "\"ip\":\"10.77.0.9\",\"ipv6\":\"fd77::1\",\"connectionType\":1,\"port\":3,"
        "\"ifName\":\"wlan0\",\"names\":[{\"name\":\"mac\",\"source\":\"mdns\"}]}}";
    std::optional<AgentEvent> event = parseAgentLine(line);
    ASSERT_TRUE(event);
    const lanHostInfo_t &host = event->host;
    EXPECT_EQ(std::tuple(event->type, event->event, formatMac(host.mac), fieldText(host.devName),
                         ipv4Text(host.ip), ipv6Text(host.ipv6), host.port, host.connectionType),
              std::tuple("event", "left", "0a:77:00:00:00:01", "tv\n\"x\\", "10.77.0.9",
                         "fd77::1", 3, 1));
    EXPECT_EQ(parseAgentLine("{\"type\":\"snapshot\",\"seq\":4,\"hosts\":[]}")->type, "snapshot");
    EXPECT_FALSE(parseAgentLine("{\"type\":\"event\",\"event\":\"new\",\"host\":{\"mac\":\"zz\"}}"));
    EXPECT_FALSE(jsonField("{\"devName\":\"ab\\u00", "devName") ||  // cut short
                 jsonField("{\"devName\":\"ab", "devName") || parseAgentLine("not json"));
}
