// Who a device is: its vendor by longest registry prefix, and the hook's report that
// carries its DHCP fingerprint.
#include <gtest/gtest.h>

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

TEST(AgentOui, LongestPrefixWins) {
    OuiRows rows;
    for (const char *csv : {kLarge, "MA-M,70B3D5F,Medium Owner,x\n",
                            "MA-S,70B3D5F2F,TELEPLATFORMS,\"Polbina st., 3/1\"\n"})
        addOuiCsv(csv, rows);
    const std::string file = buildOuiFile(rows);
    // A router's file is built on another machine, often of the other byte order: its
    // counts are little-endian everywhere (the MIPS run of these tests reads them so).
    EXPECT_EQ(file.substr(8, 12), std::string("\x02\0\0\0\x01\0\0\0\x01\0\0\0", 12));
    OuiDb db;
    ASSERT_TRUE(db.adopt(file));
    const std::pair<std::array<uint8_t, 6>, const char *> cases[] = {
        {{0x70, 0xb3, 0xd5, 0xf2, 0xf7, 0x01}, "TELEPLATFORMS"},
        {{0x70, 0xb3, 0xd5, 0xf3, 0x00, 0x00}, "Medium Owner"},
        {{0x70, 0xb3, 0xd5, 0xef, 0xff, 0xff}, "IEEE Registration Authority"},
        {{0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e}, "Ayecom Technology Co., Ltd."},
        {{0x00, 0x1a, 0x2c, 0, 0, 0}, ""},
    };
    OuiDb moved = std::move(db);  // a short-lived owner must not leave dangling views
    for (const auto &[mac, vendor] : cases) EXPECT_EQ(moved.lookup(mac), vendor) << vendor;
}

TEST(AgentDhcpReport, RoundTripsAndBoundsLanText) {
    DhcpReport report{{0x02, 0, 0, 0, 0, 1}, "pc\ninjected=1", "ff:00", "MSFT 5.0", {1, 3, 6, 255}};
    std::optional<DhcpReport> back = parseDhcpReport(formatDhcpReport(report));
    report.hostname = "pc";  // cut at the line break
    EXPECT_EQ(back, report);
    const std::string mac = "mac=02:00:00:00:00:01\n";
    std::string manyOptions = mac + "options=1";
    for (size_t i = 0; i < kMaxRequestedOptions; ++i) manyOptions += ",1";
    const std::string bad[] = {
        "hostname=x\n",  // no mac
        "mac=02:00:00:00:00:0g\n",
        mac + "no equals\n",
        mac + "options=1,,3\n",
        mac + "options=256\n",
        mac + "options=0x10\n",
        mac + "options=-1\n",
        manyOptions,
        mac + "vendor_class=" + std::string(kMaxDhcpField + 1, 'v'),
    };
    for (const std::string &text : bad) EXPECT_FALSE(parseDhcpReport(text)) << text;
}

}  // namespace
