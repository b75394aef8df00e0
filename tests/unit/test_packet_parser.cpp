#include "fixture.h"
#include "sniffer/packet_parser.h"

namespace {

using Frame = std::vector<uint8_t>;  // also MACs and IPv4 addresses, in wire order

Frame operator+(Frame a, const Frame &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

const Frame kHost{0x02, 0, 0, 0, 0, 0x01};
const Frame kGateway{0x02, 0xaa, 0xbb, 0xcc, 0xdd, 0xee};
const Frame kZero(6, 0);
const Frame kHostIp{192, 168, 1, 20};
const Frame kGatewayIp{192, 168, 1, 1};

Frame ethernet(const Frame &source, uint16_t type) {
    return Frame(6, 0xff) + source + Frame{uint8_t(type >> 8), uint8_t(type)};
}

// Ethernet/IPv4 ARP of operation OP, sender pair then target pair.
Frame arp(uint8_t op, const Frame &sender, const Frame &senderIp, const Frame &target = kZero,
          const Frame &targetIp = kGatewayIp) {
    return ethernet(sender, 0x0806) + Frame{0, 1, 0x08, 0, 6, 4, 0, op} + sender + senderIp +
           target + targetIp;
}

// From the host to the broadcast address; the total length is not read.
Frame ipv4(uint8_t proto, const Frame &from, const Frame &payload, uint8_t versionIhl = 0x45) {
    return ethernet(kHost, 0x0800) + Frame{versionIhl, 0, 0, 0, 0, 0, 0, 0, 64, proto, 0, 0} +
           from + Frame(4, 255) + payload;
}

// UDP from port 68 to PORT, its length field LENGTHEXTRA beyond the data.
Frame toServer(const Frame &payload, uint16_t port = 67, int lengthExtra = 0) {
    auto length = uint16_t(8 + payload.size() + lengthExtra);
    return ipv4(17, Frame(4, 0),
                Frame{0, 68, uint8_t(port >> 8), uint8_t(port), uint8_t(length >> 8),
                      uint8_t(length), 0, 0} +
                    payload);
}

// BOOTP reply for the host (xid, yiaddr, chaddr, cookie), then OPTIONS up to the frame's end.
Frame dhcp(const Frame &options) {
    return Frame{2, 0, 0, 0, 0xde, 0xad, 0xbe, 0xef} + Frame(8, 0) + kHostIp + Frame(8, 0) + kHost +
           Frame(202, 0) + Frame{99, 130, 83, 99} + options;
}

Frame dhcpFrame(uint8_t type, const Frame &moreOptions = {}, uint16_t port = 67) {
    return toServer(dhcp(Frame{53, 1, type} + moreOptions), port);
}

Frame hostName(const std::string &name) {
    return Frame{12, uint8_t(name.size())} + Frame(name.begin(), name.end());
}

// Parsed from an exactly sized heap copy, so that ASan catches any read past the frame.
int parse(const Frame &frame) {
    auto copy = std::make_unique<uint8_t[]>(frame.size());
    std::copy(frame.begin(), frame.end(), copy.get());
    return parse_packet(copy.get(), frame.size());
}

// "ADDRESS NAME" as the cache hands them out for MAC, or "none".
std::string lookup(const Frame &mac) {
    uint32_t ip = 0;
    char name[kNeighborNameLen] = {};
    if (!getSnifferNeighborHost(mac.data(), &ip, name, sizeof name)) return "none";
    return inet_ntoa({ip}) + std::string(" ") + name;
}

struct NeighborTest : HostrixTest {
    static std::string dump() { return printedBy(dump_neighbor_host); }
};

TEST_F(NeighborTest, ArpRepliesAndOtherIpv4RecordTheirPairsButNoZeroMac) {
    EXPECT_EQ(parse(Frame(13, 0)), -1);
    parse(arp(2, kZero, kHostIp, kGateway, kGatewayIp));
    parse(arp(2, kHost, kHostIp));
    EXPECT_EQ(lookup(kHost) + "/" + lookup(kGateway) + "/" + lookup(kZero),
              "192.168.1.20 /192.168.1.1 /none");
    parse(ipv4(2, Frame{192, 168, 1, 21}, Frame(8, 0)));  // IGMP: Ethernet and IPv4 sources
    EXPECT_EQ(lookup(kHost), "192.168.1.21 ");
}

TEST_F(NeighborTest, DhcpRecordsAddressAndNameAndOnlyUsableAddressesAreHandedOut) {
    parse(dhcpFrame(5, hostName(std::string(70, 'n'))));  // ACK
    EXPECT_EQ(lookup(kHost), "192.168.1.20 " + std::string(63, 'n'));
    char name[4] = {'x', 'x', 'x', 'x'};  // a full buffer is left unterminated
    EXPECT_EQ(getSnifferNeighborHost(kHost.data(), nullptr, name, sizeof name), 1);
    EXPECT_EQ(std::string(name, 4), "nnnn");
    // RELEASE, a pad before its name: the address becomes 0, the name is taken.
    parse(dhcpFrame(7, Frame{0} + hostName("phone") + Frame{50, 4, 10, 0, 0, 9}));
    EXPECT_EQ(lookup(kHost), "none");
    parse(dhcpFrame(2, {}, 68));  // OFFER without a name: the old one stays
    EXPECT_EQ(lookup(kHost), "192.168.1.20 phone");
    parse(arp(2, kHost, Frame{169, 254, 7, 9}));
    EXPECT_EQ(lookup(kHost), "none");
}

TEST_F(NeighborTest, AgeingRemovesAtTwelveHundredSecondsAfterTheLastSighting) {
    parse(arp(2, kHost, kHostIp));
    parse(arp(2, kGateway, kGatewayIp));
    fake::advanceSeconds(1);
    parse(arp(2, kGateway, kGatewayIp));  // seen again: its time restarts
    fake::advanceSeconds(1200);
    EXPECT_EQ(dump(),
              "### Neighbor Host:\n"
              "    HOST 020000000001 IP 192.168.1.20 timeout   -1 NAME \n"
              "    HOST 02AABBCCDDEE IP 192.168.1.1 timeout    0 NAME \n\n");
    fake::advanceSeconds(-1);  // host 1200 s old, gateway 1199
    aging_neighbor_host(0);
    EXPECT_EQ(lookup(kHost) + "/" + lookup(kGateway), "none/192.168.1.1 ");
    delSnifferNeighborHost(kGateway.data());
    EXPECT_EQ(lookup(kGateway), "none");
}

// A sniffed name reaches the cache only as printable text; the address is taken anyway
// and a name learned before stays.
TEST_F(NeighborTest, OnlyPrintableHostNamesAreStored) {
    using namespace std::string_literals;
    const std::pair<std::string, std::string> cases[] = {
        {"my phone-2", "my phone-2"}, {"ab\0cd"s, "ab"}, {"esc\x1b[2J", "tv"},
        {"line\nbreak", "tv"},        {"cr\r", "tv"},    {"\nx", "tv"},
        {"caf\xc3\xa9", "tv"},        {"del\x7f", "tv"}, {"tab\there", "tv"}};
    for (const auto &[sent, stored] : cases) {
        aging_neighbor_host(1);
        parse(dhcpFrame(5, hostName("tv")));
        parse(dhcpFrame(7, hostName(sent)));  // RELEASE: the address becomes 0
        EXPECT_EQ(lookup(kHost), "none") << sent;
        parse(arp(2, kHost, kHostIp));
        EXPECT_EQ(lookup(kHost), "192.168.1.20 " + stored) << sent;
    }
}

TEST_F(NeighborTest, BadOrUnwantedFramesChangeNothing) {
    const Frame reply = arp(2, kHost, kHostIp, kGateway, kGatewayIp);
    const Frame ack = dhcp({53, 1, 5});
    // Each is parsed at its exact size, so the short ones also check the bounds.
    const std::pair<const char *, Frame> cases[] = {
        {"ArpRequest", arp(1, kHost, kHostIp, kGateway, kGatewayIp)},
        {"ArpForIpv6",
         ethernet(kHost, 0x0806) + Frame{0, 1, 0x86, 0xdd, 6, 4, 0, 2, 1, 1} + Frame(18, 1)},
        {"ArpOneByteShort", Frame(reply.begin(), reply.end() - 1)},
        {"VlanTagged",
         ethernet(kHost, 0x8100) + Frame{0, 1} + Frame(reply.begin() + 12, reply.end())},
        {"IpHeaderPastFrame", ipv4(17, Frame(4, 0), Frame(8, 0), 0x4f)},
        {"IpHeaderJustPastFrame", ipv4(17, Frame(4, 0), Frame(8, 0), 0x48)},
        {"Discover", dhcpFrame(1, {50, 4, 10, 0, 0, 9})},
        {"Request", dhcpFrame(3, Frame{50, 4, 10, 0, 0, 9} + hostName("phone"))},
        {"OptionsAfterEnd", toServer(dhcp({53, 1, 1, 255, 0, 53, 1, 5}))},
        {"UdpHeaderCut", ipv4(17, Frame(4, 0), Frame(4, 0))},
        {"UdpLengthBeyondData", toServer(ack, 67, 1)},
        {"DhcpPayload239", toServer(Frame(ack.begin(), ack.begin() + 239))},
        {"OtherPort", toServer(ack, 53)},
        // The walk stops at an option running past the frame, before the type.
        {"OptionPastFrameEndsWalk", toServer(dhcp({12, 5, 'a', 53, 1, 5}))},
        // An empty address option, then a lone code byte: neither may be read past.
        {"OptionsEndMidOption", toServer(dhcp({53, 1, 1, 50, 0, 3}))}};
    for (const auto &[name, frame] : cases) {
        EXPECT_EQ(parse(frame), 0) << name;
        EXPECT_EQ(dump(), "### Neighbor Host:\n\n") << name;
    }
}

}  // namespace
