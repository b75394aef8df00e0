// The linux configuration store: the pure parser first, then the store over a file in
// a temporary HOSTRIX_ROOT (loading, reporting, reloading, the records it lays out).
#include <fcntl.h>
#include <sys/stat.h>

#include <map>
#include <optional>

#include "linux_test_support.h"
#include "platform/linux/mib_config.h"
#include "platform/os.h"

namespace {

namespace fs = std::filesystem;

// Parses TEXT over the defaults; SKIPPED gets "LINE: REASON\n" for each line skipped.
MibConfig parse(std::string_view text, std::string *skipped = nullptr) {
    MibConfig config;
    parseMibConfig(text, config, [skipped](unsigned line, std::string_view reason) {
        if (skipped) *skipped += std::to_string(line) + ": " + std::string(reason) + "\n";
    });
    return config;
}

// The keys read by one module alone (ports, SSIDs, sources, groups) are checked with it.
TEST(ParseMibConfig, GoodLines) {
    std::string skipped;
    const MibConfig config = parse(  // the last line needs no newline
        "# settings\n\n\t# indented\n#490 = 5\n475 = 30#s\n481=0XfF\n482 = 020\n"
        "483 = 4294967295\n \t484\t=\t 7 \t\r\n474 = 1 # on\n99999 = 5\n486 = 1\n486 = 2\n"
        "chain.3004 = enable=1 mode=0 ports=0x3\nchain.3004 = ports=0x80000001 mode=1\n"
        "chain.3004 =\nifname.br0 = br-lan\nifname.eth0.2 = lan1\nifname.eth0.2 = lan2",
        &skipped);
    EXPECT_EQ(skipped, "");
    const std::map<int, uint32_t> settings{{474, 1},          {475, 30}, {481, 0xff}, {482, 16},
                                           {483, 0xffffffff}, {484, 7},  {486, 2},    {99999, 5}};
    EXPECT_EQ(config.settings, settings);  // "020" is octal, a later line wins
    EXPECT_EQ(config.wanConnections, (std::vector<MibChainRow>{{1, 0, 3}, {0, 1, 0x80000001}, {}}));
    // A later line for a gateway name wins; unmapped names are the same on both sides.
    EXPECT_EQ(std::tuple(config.ifnames.kernelOf("br0"), config.ifnames.kernelOf("eth0.2"),
                         config.ifnames.gatewayOf("lan2"), config.ifnames.gatewayOf("lan1"),
                         config.ifnames.kernelOf("wlan0")),
              std::tuple("br-lan", "lan2", "eth0.2", "lan1", "wlan0"));
}

// The tools read only the ifname lines, with the daemon's rules for repeats.
TEST(ParseIfnameLines, SameMapAsTheDaemon) {
    const std::string text =
        "# names\n  ifname.br0 = br-lan # bridge\nifname.wlan0=phy0-ap0\nifname.wlan1 = phy0-ap0\n"
        "ifname. = x\nifname.eth0.2 =\n478 = 5\n";
    std::string skipped;
    EXPECT_EQ(parseIfnameLines(text), parse(text, &skipped).ifnames);
    EXPECT_NE(skipped.find("4: kernel interface \"phy0-ap0\" is already mapped to \"wlan0\""),
              std::string::npos);
    EXPECT_EQ(parseIfnameLines(text).pairs().size(), 2u);
}

// Each bad line sits between two good ones: it alone is skipped, reported as line 2.
TEST(ParseMibConfig, MalformedLineSkippedAlone) {
    const std::pair<const char *, std::vector<std::string>> cases[] = {
        {"bad number \"0xZZ\" for setting 480", {"480 = 0xZZ"}},
        {"bad number", {"480 = 4294967296", "480 = -1", "480 = 08", "480 = 1 2"}},
        {"bad setting id", {"2147483648 = 1"}},
        {"missing '='", {"480 1"}},
        {"empty key", {" = 5"}},
        {"unknown key \"colour\"", {"colour = red"}},
        {"unknown chain \"3005\"", {"chain.3005 = enable=1"}},
        {"bad attribute", {"chain.3004 = enable=1 colour=red"}},
        {"bad value", {"chain.3004 = ports", "chain.3004 = mode=256"}},
        {"more than", {"lan_ports = a b c d e", "wlan_roots = a b c"}},
        {"bad interface name", {"lan_ports = eth0/2", "lan_ports = abcdefghijklmnop", "wlan_roots = .."}},
        {"longer than 32", {"ssid.wlan0 = " + std::string(33, 's')}},
        {"bad port id", {"phy.eth0.2 = 2147483648"}},
        {"source", {"stations = dir:", "counters = on"}},
        {"bad command mode", {"commands = busybox"}},
        {"bad kernel interface name", {"ifname.br0 = br lan", "ifname.br0 ="}},
        {"absolute path", {"lease_file = leases"}},
        {"bad group name", {"socket_group = -x", "socket_group = a:b"}},
        {"NUL byte", {std::string("480 = 1\0", 8)}},
        {"longer than 1024", {"480 = 1 #" + std::string(kMibMaxLineBytes, 'x')}}};
    const MibConfig good = parse("478 = 1\n479 = 2\n");
    for (const auto &[reason, lines] : cases)
        for (const std::string &line : lines) {
            std::string skipped;
            EXPECT_TRUE(parse("478 = 1\n" + line + "\n479 = 2\n", &skipped) == good &&
                        skipped.starts_with("2: ") && skipped.find(reason) != std::string::npos &&
                        skipped.find('\n') == skipped.size() - 1)
                << line << " => " << skipped;
        }
    // Every line is counted; a quoted value is clipped, its control bytes shown as '?'.
    std::string text, skipped;
    for (size_t i = 0; i <= kMibMaxChainRows; ++i) text += "chain.3004 = enable=1\n";
    EXPECT_EQ(parse(text, &skipped).wanConnections.size(), kMibMaxChainRows);
    parse("# header\n\n480 = 1\r\nbogus\r\n\n481 = \x01" + std::string(100, 'z'), &skipped);
    EXPECT_EQ(skipped,
              "65: more than 64 rows in chain 3004\n4: missing '=' after \"bogus\"\n"
              "6: bad number \"?" +
                  std::string(39, 'z') + "...\" for setting 481\n");
}

// ---- the store over a file ----

class MibStore : public HostrixRootTest {};

constexpr std::optional<uint32_t> kUnset;

std::optional<uint32_t> setting(int id) {
    uint32_t value = 0;
    if (mib_get_s(id, &value, 4) != 1) return std::nullopt;
    return value;
}

// The interface tables as text, "|" where each table's null terminator is.
std::string interfaceTables() {
    std::string out;
    for (int i = 0; i <= kLanPortCount; ++i)
        out += ELANRIF[i] ? ELANRIF[i] + std::string(" ") : "| ";
    for (int i = 0; i <= kWlanRootCount; ++i) out += WLANIF[i] ? WLANIF[i] + std::string(" ") : "|";
    return out;
}

// Malformed lines are reported once per load, as is a value too wide for one byte.
TEST_F(MibStore, WidthsAndReportsWithPathAndLine) {
    writeConfig("474 = 7\n475 = 300\n\n480x = 2\n476 = 255\n");
    StderrCapture capture;
    const struct {
        int id, width, result;
        uint32_t written;  // the buffer after the call, prefilled 0xaaaaaaaa
    } cases[] = {{474, 1, 1, 0xaaaaaa07}, {474, 4, 1, 7},          {475, 1, 0, 0xaaaaaaaa},
                 {475, 1, 0, 0xaaaaaaaa}, {476, 1, 1, 0xaaaaaaff}, {474, 2, 0, 0xaaaaaaaa},
                 {481, 4, 0, 0xaaaaaaaa}};
    for (const auto &c : cases) {
        uint32_t buffer = 0xaaaaaaaa;
        EXPECT_EQ(mib_get_s(c.id, &buffer, c.width), c.result) << c.id << " width " << c.width;
        EXPECT_EQ(buffer, c.written) << c.id << " width " << c.width;
    }
    writeConfig("475 = 3000\n");
    uint8_t byte = 0;
    EXPECT_EQ(mib_get_s(475, &byte, 1), 0);
    const std::string at = "hostrix: " + configPath();
    EXPECT_EQ(capture.text(), at + ":4: bad setting id \"480x\" (line skipped)\n" + at +
                                  ": setting 475 = 300 does not fit in 1 byte (not used)\n" + at +
                                  ": setting 475 = 3000 does not fit in 1 byte (not used)\n");
}

// The interface tables follow the file, then go back to the defaults with it; only a
// file that is there yet unreadable is reported, once.
// The socket group is looked up when asked for; an unknown one is reported once with
// its line and leaves the sockets to root.
TEST_F(MibStore, SocketGroupLookedUpAndUnknownOneReportedOnce) {
    EXPECT_EQ(os_socket_group(), -1);
    writeConfig("socket_group = root\n");
    EXPECT_EQ(os_socket_group(), 0);
    writeConfig("# ops\nsocket_group = hx-no-such-group\n");
    StderrCapture capture;
    EXPECT_EQ(os_socket_group() + os_socket_group(), -2);
    EXPECT_EQ(capture.text(),
              "hostrix: " + configPath() +
                  ":2: unknown group \"hx-no-such-group\" (sockets stay 0600)\n");
}

TEST_F(MibStore, MissingOrUnreadableFileGivesDefaults) {
    writeConfig("480 = 1\nlan_ports = lan1 lan2\nwlan_roots = radio0\n");
    EXPECT_EQ(setting(480), 1u);
    EXPECT_EQ(interfaceTables(), "lan1 lan2 / / | radio0 / |");
    fs::remove(configPath());
    mib_refresh();
    StderrCapture capture;
    EXPECT_EQ(setting(480), std::nullopt);
    EXPECT_EQ(interfaceTables(), "eth0.2 eth0.3 eth0.4 eth0.5 | wlan0 wlan1 |");
    fs::create_directory(configPath());  // readable by root, yet no file
    mib_refresh();
    EXPECT_EQ(std::pair(setting(480), setting(480)), std::pair(kUnset, kUnset));  // said once
    EXPECT_EQ(capture.text(),
              "hostrix: " + configPath() + ": not a regular file (using defaults)\n");
}

// Failed look-ups leave the buffers alone; found ones are cleared around the fields.
TEST_F(MibStore, RecordsAtTheReadersOffsets) {
    const std::string ssid32(kMibMaxSsidBytes, 'L');
    writeConfig("chain.3004 = enable=1 mode=7 ports=0x04030201\nssid.wlan0 = " + ssid32);
    EXPECT_EQ(std::tuple(mib_chain_total(kChainWanConnections), mib_chain_total(3005)),
              std::tuple(1, 0));
    std::array<uint8_t, 1060> chain, expected{};
    chain.fill(0xaa);
    EXPECT_EQ(mib_chain_get(kChainWanConnections, 1, chain.data()), 0);
    EXPECT_EQ(mib_chain_get(3005, 0, chain.data()), 0);
    expected[239] = 1;                                   // enable
    expected[22] = 7;                                    // mode
    std::memcpy(&expected[261], "\x01\x02\x03\x04", 4);  // ports: little-endian, unaligned
    ASSERT_EQ(mib_chain_get(kChainWanConnections, 0, chain.data()), 1);
    EXPECT_EQ(chain, expected);

    std::array<char, kWlanConfigSize> wlan, ssid{};
    wlan.fill('\xaa');
    int index = 7;
    EXPECT_EQ(mib_chain_get_wlan("wlan0-vap0", wlan.data(), &index), -1);
    EXPECT_EQ(mib_chain_get_wlan(nullptr, wlan.data(), &index), -1);
    EXPECT_EQ(index, 7);
    std::memcpy(&ssid[220], ssid32.data(), ssid32.size());
    ASSERT_EQ(mib_chain_get_wlan("wlan0", wlan.data(), &index), 0);
    EXPECT_EQ(std::tuple(index, wlan), std::tuple(0, ssid));
}

// Each edit leaves all but one of inode, size and modification time as they were.
TEST_F(MibStore, ReloadsWhenTheFileChanges) {
    auto write = [](const std::string &path, const char *text, long nsec) {
        std::ofstream(path, std::ios::trunc) << text;
        const timespec times[2] = {{1000000000, nsec}, {1000000000, nsec}};
        utimensat(AT_FDCWD, path.c_str(), times, 0);
        mib_refresh();  // as the daemon's reload does
    };
    const struct {
        const char *text;
        bool newInode;
        long nsec;
    } edits[] = {{"480 = 2\n", false, 500}, {"480 = 2\n", true, 0}, {"480 = 0x2\n", false, 0}};
    for (const auto &e : edits) {
        mibConfigReset();
        writeConfig("");
        write(configPath(), "480 = 1\n", 0);
        EXPECT_EQ(setting(480), 1u);
        const std::string target = configPath() + (e.newInode ? ".new" : "");
        write(target, e.text, e.nsec);
        if (e.newInode) fs::rename(target, configPath());
        mib_refresh();
        EXPECT_EQ(setting(480), 2u) << e.text << (e.newInode ? " in a new file" : "");
    }
}

TEST_F(MibStore, OversizedFileKeepsWholeLinesWithinTheLimit) {
    // The comment ends 7 bytes short of the limit, which falls between the "2" and the "3".
    writeConfig("480 = 1\n#" + std::string(64 * 1024 - 17, '-') + "\n481 = 23\n");
    StderrCapture capture;
    EXPECT_EQ(std::pair(setting(480), setting(481)), std::pair(std::optional(1u), kUnset));
    EXPECT_NE(capture.text().find("larger than 65536 bytes"), std::string::npos);
}

}  // namespace
