// Who a device is: its vendor by longest registry prefix, and the hook's report that
// carries its DHCP fingerprint.
#include <gtest/gtest.h>

#include <cstring>

#include "dhcp_report.h"
#include "oui.h"

namespace {

// One prefix nested in another at each width, as the registries have them.
constexpr const char *kLarge =
    "Registry,Assignment,Organization Name,Organization Address\n"
    "MA-L,70B3D5,IEEE Registration Authority,445 Hoes Lane\r\n"
    "MA-L,001A2B,\"Ayecom Technology Co., Ltd.\",\"Taipei, TW\"\n"
    "MA-L,00zz00,Bad Hex,x\n"
    "MA-L,0000FF,,no name\n";
constexpr const char *kMedium = "MA-M,70B3D5F,Medium Owner,x\n";
constexpr const char *kSmall = "MA-S,70B3D5F2F,TELEPLATFORMS,\"Polbina st., 3/1\"\n";

OuiDb sampleDb() {
    OuiRows rows;
    EXPECT_EQ(addOuiCsv(kLarge, rows), 2u);
    EXPECT_EQ(addOuiCsv(kMedium, rows), 1u);
    EXPECT_EQ(addOuiCsv(kSmall, rows), 1u);
    OuiDb db;
    EXPECT_TRUE(db.adopt(buildOuiFile(rows)));
    return db;
}

std::string vendorOf(const OuiDb &db, std::array<uint8_t, 6> mac) {
    return std::string(db.lookup(mac));
}

TEST(AgentOui, LongestPrefixWins) {
    OuiDb db = sampleDb();
    EXPECT_EQ(db.entries(), 4u);
    EXPECT_EQ(vendorOf(db, {0x70, 0xb3, 0xd5, 0xf2, 0xf7, 0x01}), "TELEPLATFORMS");
    EXPECT_EQ(vendorOf(db, {0x70, 0xb3, 0xd5, 0xf3, 0x00, 0x00}), "Medium Owner");
    EXPECT_EQ(vendorOf(db, {0x70, 0xb3, 0xd5, 0xef, 0xff, 0xff}), "IEEE Registration Authority");
    EXPECT_EQ(vendorOf(db, {0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e}), "Ayecom Technology Co., Ltd.");
    EXPECT_EQ(vendorOf(db, {0x00, 0x1a, 0x2c, 0, 0, 0}), "");
    OuiDb moved = std::move(db);  // a short-lived owner must not leave dangling views
    EXPECT_EQ(vendorOf(moved, {0x00, 0x1a, 0x2b, 0, 0, 0}), "Ayecom Technology Co., Ltd.");
}

// A router's file is built on another machine, often of the other byte order: it is
// little-endian everywhere (the MIPS run of these tests reads it big-endian).
TEST(AgentOui, FileIsLittleEndianWhoeverBuildsIt) {
    OuiRows rows;
    addOuiCsv(kLarge, rows);
    const std::string file = buildOuiFile(rows);
    ASSERT_GE(file.size(), 12u);
    EXPECT_EQ(file.substr(8, 4), std::string("\x02\0\0\0", 4));  // two MA-L rows
}

TEST(AgentDhcpReport, RoundTripsAndBoundsLanText) {
    DhcpReport report;
    report.options = {1, 3, 6, 255};
    report.vendorClass = "MSFT 5.0";
    report.mac = {0x02, 0, 0, 0, 0, 1};
    report.hostname = "pc\ninjected=1";  // cut at the line break
    report.clientId = "ff:00";
    std::optional<DhcpReport> back = parseDhcpReport(formatDhcpReport(report));
    ASSERT_TRUE(back);
    report.hostname = "pc";
    EXPECT_EQ(*back, report);

    const char *bad[] = {
        "hostname=x\n",                         // no mac
        "mac=02:00:00:00:00:01\nno equals\n",
        "mac=02:00:00:00:00:0g\n",
        "mac=02:00:00:00:00:01\noptions=1,,3\n",
        "mac=02:00:00:00:00:01\noptions=256\n",
        "mac=02:00:00:00:00:01\noptions=0x10\n",
        "mac=02:00:00:00:00:01\noptions=-1\n",
    };
    for (const char *text : bad) EXPECT_FALSE(parseDhcpReport(text)) << text;
    std::string longField = "mac=02:00:00:00:00:01\nvendor_class=" + std::string(kMaxDhcpField + 1, 'v');
    EXPECT_FALSE(parseDhcpReport(longField));
    std::string manyOptions = "mac=02:00:00:00:00:01\noptions=1";
    for (size_t i = 0; i < kMaxRequestedOptions; ++i) manyOptions += ",1";
    EXPECT_FALSE(parseDhcpReport(manyOptions));
}

}  // namespace
