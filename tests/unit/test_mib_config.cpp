// The linux configuration store: the pure parser first, then the store over a file in
// a temporary HOSTRIX_ROOT (loading, reporting, the records it lays out).
#include "linux_test_support.h"
#include "platform/os.h"

#include <fcntl.h>
#include <sys/stat.h>

namespace {

// Parses TEXT over the defaults; SKIPPED gets "LINE: REASON\n" for each line skipped.
MibConfig parse(std::string_view text, std::string *skipped = nullptr) {
    MibConfig config;
    parseMibConfig(text, config, [skipped](unsigned line, std::string_view reason) {
        if (skipped) *skipped += std::to_string(line) + ": " + std::string(reason) + "\n";
    });
    return config;
}

// Each bad line sits between two good ones: it alone is skipped, reported as line 2.
TEST(ParseMibConfig, MalformedLineSkippedAlone) {
    const std::pair<const char *, std::vector<std::string>> cases[] = {
        {"bad number \"0xZZ\" for setting 480", {"480 = 0xZZ"}},
        {"bad number", {"480 = 4294967296", "480 = -1", "480 = 08", "480 = 1 2"}},
        {"bad setting id", {"2147483648 = 1"}}, {"missing '='", {"480 1"}},
        {"empty key", {" = 5"}}, {"unknown key \"colour\"", {"colour = red"}},
        {"unknown chain \"3005\"", {"chain.3005 = enable=1"}},
        {"bad attribute", {"chain.3004 = enable=1 colour=red"}},
        {"bad value", {"chain.3004 = ports", "chain.3004 = mode=256"}},
        {"more than", {"lan_ports = a b c d e", "wlan_roots = a b c"}},
        {"bad interface name",
         {"lan_ports = eth0/2", "lan_ports = abcdefghijklmnop", "wlan_roots = .."}},
        {"longer than 32", {"ssid.wlan0 = " + std::string(33, 's')}},
        {"bad port id", {"phy.eth0.2 = 2147483648"}}, {"bad command mode", {"commands = busybox"}},
        {"source", {"stations = dir:", "counters = on"}},
        {"bad kernel interface name", {"ifname.br0 = br lan", "ifname.br0 ="}},
        {"absolute path", {"lease_file = leases"}}, {"NUL byte", {std::string("480 = 1\0", 8)}},
        {"bad group name", {"socket_group = -x", "socket_group = a:b"}},
        {"longer than 1024", {"480 = 1 #" + std::string(kMibMaxLineBytes, 'x')}}};
    const MibConfig good = parse("478 = 1\nphy.eth0.2 = 5\n");
    ASSERT_EQ(good.phyIds, (std::map<std::string, int, std::less<>>{{"eth0.2", 5}}));
    for (const auto &[reason, lines] : cases)
        for (const std::string &line : lines) {
            std::string skipped;
            EXPECT_TRUE(parse("478 = 1\n" + line + "\nphy.eth0.2 = 5\n", &skipped) == good &&
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

// Malformed lines are reported once per load, as are a value too wide for one byte and
// an unknown socket group; a rewrite within the same second is still seen.
TEST_F(MibStore, WidthsAndReportsWithPathAndLine) {
    writeConfig("474 = 7\n475 = 300\n\n480x = 2\n476 = 255\nsocket_group = nosuchgroup\n");
    StderrCapture capture;
    // A one-byte setting fills the first byte (the low one only on a little-endian box).
    constexpr uint32_t kUntouched = 0xaaaaaaaa;
    auto firstByte = [](uint8_t value) {
        uint32_t buffer = kUntouched;
        std::memcpy(&buffer, &value, 1);
        return buffer;
    };
    // Setting, width, result, and the buffer after the call.
    const std::tuple<int, int, int, uint32_t> cases[] = {
        {474, 1, 1, firstByte(7)},    {474, 4, 1, 7},          {475, 1, 0, kUntouched},
        {475, 1, 0, kUntouched},      {476, 1, 1, firstByte(0xff)}, {474, 2, 0, kUntouched},
        {481, 4, 0, kUntouched}};
    for (const auto &[id, width, result, written] : cases) {
        uint32_t buffer = kUntouched;
        EXPECT_EQ(mib_get_s(id, &buffer, width), result) << id << " width " << width;
        EXPECT_EQ(buffer, written) << id << " width " << width;
    }
    EXPECT_EQ(os_socket_group(), -1);
    writeConfig("475 = 3000\n");
    uint8_t byte = 0;
    EXPECT_EQ(mib_get_s(475, &byte, 1), 0);
    for (const uint8_t value : {3, 4}) {  // same size and second: only nanoseconds differ
        writeConfig("475 = " + std::to_string(value) + "\n");
        const timespec times[2] = {{0, UTIME_OMIT}, {1'700'000'000, value}};
        ASSERT_EQ(utimensat(AT_FDCWD, configPath().c_str(), times, 0), 0);
        EXPECT_EQ(std::pair(mib_get_s(475, &byte, 1), byte), std::pair(1, value));
    }
    const std::string at = "hostrix: " + configPath();
    EXPECT_EQ(capture.text(), at + ":4: bad setting id \"480x\" (line skipped)\n" + at +
                                  ": setting 475 = 300 does not fit in 1 byte (not used)\n" + at +
                                  ":6: unknown group \"nosuchgroup\" (sockets stay 0600)\n" + at +
                                  ": setting 475 = 3000 does not fit in 1 byte (not used)\n");
}

// Failed look-ups leave the buffers alone; found ones are cleared around the fields.
TEST_F(MibStore, RecordsAtTheReadersOffsets) {
    const std::string ssid32(kMibMaxSsidBytes, 'L');
    writeConfig("chain.3004 = enable=1 mode=7 ports=0x04030201\nssid.wlan0 = " + ssid32);
    std::array<uint8_t, 1060> chain, expected{};
    chain.fill(0xaa);
    EXPECT_EQ(std::tuple(mib_chain_total(kChainWanConnections), mib_chain_total(3005),
                         mib_chain_get(kChainWanConnections, 1, chain.data()),
                         mib_chain_get(3005, 0, chain.data())),
              std::tuple(1, 0, 0, 0));
    expected[239] = 1;                                   // enable
    expected[22] = 7;                                    // mode
    std::memcpy(&expected[261], "\x01\x02\x03\x04", 4);  // ports: little-endian, unaligned
    ASSERT_EQ(mib_chain_get(kChainWanConnections, 0, chain.data()), 1);
    EXPECT_EQ(chain, expected);

    std::array<char, kWlanConfigSize> wlan, ssid{};
    wlan.fill('\xaa');
    int index = 7;
    EXPECT_EQ((std::tuple{mib_chain_get_wlan("wlan0-vap0", wlan.data(), &index),
                          mib_chain_get_wlan(nullptr, wlan.data(), &index), index}),
              std::tuple(-1, -1, 7));
    std::memcpy(&ssid[220], ssid32.data(), ssid32.size());
    ASSERT_EQ(mib_chain_get_wlan("wlan0", wlan.data(), &index), 0);
    EXPECT_EQ(std::tuple(index, wlan), std::tuple(0, ssid));
}

}  // namespace
