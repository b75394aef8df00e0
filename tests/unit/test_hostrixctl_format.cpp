// hostrixctl's pure parts: request and reply records, and how LAN text is shown.
#include <gtest/gtest.h>

#include "args.h"
#include "format.h"
#include "protocol.h"

namespace {

constexpr std::nullopt_t kBad = std::nullopt;

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

TEST(CtlRecords, ReplyListEndsAtTheFirstZeroMacOrAfterFour) {
    lanHostInfo_t host{};
    host.mac[0] = 0x02;
    const lanHostInfo_t hosts[] = {host, host, host, host};
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

}  // namespace
