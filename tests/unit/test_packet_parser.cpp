#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "fixture.h"
#include "sniffer/neighbor_cache.h"
#include "sniffer/packet_parser.h"

namespace {

using Frame = std::vector<uint8_t>;
using Ip = std::array<uint8_t, 4>;

const fake::Mac kHost = fake::mac(0x02, 0, 0, 0, 0, 0x01);
const fake::Mac kGateway = fake::mac(0x02, 0xaa, 0xbb, 0xcc, 0xdd, 0xee);
const fake::Mac kZero{};
const Ip kHostIp{192, 168, 1, 20};
const Ip kGatewayIp{192, 168, 1, 1};

template <typename Range>
void put(Frame &f, const Range &bytes) {
    f.insert(f.end(), bytes.begin(), bytes.end());
}
void put16(Frame &f, uint16_t v) {
    put(f, Frame{uint8_t(v >> 8), uint8_t(v)});
}

Frame ethernet(const fake::Mac &source, uint16_t type) {
    Frame f(6, 0xff);  // destination: broadcast
    put(f, source);    // source MAC
    put16(f, type);    // EtherType
    return f;
}

Frame arp(uint16_t op, const fake::Mac &sender, const Ip &senderIp, const fake::Mac &target,
          const Ip &targetIp) {
    Frame f = ethernet(sender, 0x0806);
    put16(f, 1);                       // hardware type: Ethernet
    put16(f, 0x0800);                  // protocol type: IPv4
    put(f, Frame{6, 4});               // hardware and protocol sizes
    put16(f, op);                      // operation
    put(f, sender), put(f, senderIp);  // sender MAC and address
    put(f, target), put(f, targetIp);  // target MAC and address
    return f;
}

Frame ipv4(const fake::Mac &source, uint8_t proto, const Ip &from, const Frame &payload) {
    Frame f = ethernet(source, 0x0800);
    put(f, Frame{0x45, 0});                        // version 4, header 5 words; TOS
    put16(f, uint16_t(20 + payload.size()));       // total length
    put(f, Frame(4, 0));                           // id, flags, fragment offset
    put(f, Frame{64, proto, 0, 0});                // TTL, protocol, checksum
    put(f, from), put(f, Ip{255, 255, 255, 255});  // source, destination
    put(f, payload);
    return f;
}

Frame udp(uint16_t dport, const Frame &payload, int lengthExtra = 0) {
    Frame f;
    put16(f, 68), put16(f, dport);                         // ports
    put16(f, uint16_t(8 + payload.size() + lengthExtra));  // length
    put16(f, 0);                                           // checksum
    put(f, payload);
    return f;
}

// BOOTP fixed part (op, xid, yiaddr, giaddr, chaddr, cookie) followed by OPTIONS.
Frame dhcp(const fake::Mac &client, const Ip &yiaddr, const Frame &options) {
    Frame f(240, 0);
    f[0] = 2;                                                 // op: reply
    f[4] = 0xde, f[5] = 0xad, f[6] = 0xbe, f[7] = 0xef;       // transaction id
    std::copy(yiaddr.begin(), yiaddr.end(), f.begin() + 16);  // yiaddr
    std::copy(client.begin(), client.end(), f.begin() + 28);  // chaddr
    f[236] = 99, f[237] = 130, f[238] = 83, f[239] = 99;      // magic cookie
    put(f, options);
    return f;
}

// A UDP datagram from the host to PORT, its length field LENGTHEXTRA beyond the data.
Frame toServer(const Frame &payload, uint16_t port = 67, int lengthExtra = 0) {
    return ipv4(kHost, 17, Ip{}, udp(port, payload, lengthExtra));
}

Frame dhcpFrame(uint8_t type, const Frame &moreOptions = {}) {
    Frame options{53, 1, type};  // message type
    put(options, moreOptions);
    options.push_back(255);  // end
    return toServer(dhcp(kHost, kHostIp, options));
}

Frame hostName(const std::string &name) {
    Frame f{12, uint8_t(name.size())};
    for (char c : name) f.push_back(static_cast<uint8_t>(c));  // GCC 12 misreads an insert here
    return f;
}

// An exactly sized heap copy, so that ASan catches any read past the frame.
int parse(const Frame &frame, size_t length) {
    std::unique_ptr<uint8_t[]> copy(new uint8_t[length]);
    std::copy_n(frame.begin(), length, copy.get());
    return parse_packet(copy.get(), length);
}
int parse(const Frame &frame) {
    return parse(frame, frame.size());
}

struct Sighting {
    int found = 0;
    Ip ip{};
    std::string name;
};
Sighting lookup(const fake::Mac &mac) {
    Sighting s;
    char name[kNeighborNameLen] = {};
    uint32_t ip = 0;
    s.found = getSnifferNeighborHost(mac.data(), &ip, name, sizeof name);
    std::memcpy(s.ip.data(), &ip, 4);
    s.name = name;
    return s;
}

std::string dump() {
    ::testing::internal::CaptureStdout();
    dump_neighbor_host();
    return ::testing::internal::GetCapturedStdout();
}

class NeighborTest : public HostrixTest {
   protected:
    void SetUp() override {
        HostrixTest::SetUp();
        aging_neighbor_host(1);
    }
    void TearDown() override { aging_neighbor_host(1); }
};

TEST_F(NeighborTest, ArpReplyRecordsSenderAndTargetUnlessTheirMacIsZero) {
    EXPECT_EQ(parse(arp(2, kHost, kHostIp, kGateway, kGatewayIp)), 0);
    EXPECT_EQ(lookup(kHost).found, 1);
    EXPECT_EQ(lookup(kHost).ip, kHostIp);
    EXPECT_EQ(lookup(kGateway).ip, kGatewayIp);

    aging_neighbor_host(1);
    parse(arp(2, kZero, kHostIp, kGateway, kGatewayIp));
    parse(arp(2, kHost, kHostIp, kZero, kGatewayIp));
    EXPECT_EQ(dump(),
              "### Neighbor Host:\n"
              "    HOST 02AABBCCDDEE IP 192.168.1.1 timeout 1200 NAME \n"
              "    HOST 020000000001 IP 192.168.1.20 timeout 1200 NAME \n\n");
}

TEST_F(NeighborTest, IgmpRecordsTheEthernetSourceWithTheIpv4Source) {
    parse(ipv4(kHost, 2, kHostIp, Frame(8, 0)));
    EXPECT_EQ(lookup(kHost).ip, kHostIp);
}

TEST_F(NeighborTest, AckRecordsYiaddrAndNameAndReleaseClearsTheAddressOnly) {
    parse(dhcpFrame(5, hostName("phone")));
    EXPECT_EQ(lookup(kHost).ip, kHostIp);
    EXPECT_EQ(lookup(kHost).name, "phone");

    parse(dhcpFrame(7, hostName("phone-2")));
    EXPECT_EQ(lookup(kHost).found, 0);
    parse(arp(2, kHost, kHostIp, kGateway, kGatewayIp));  // no name: the old one stays
    EXPECT_EQ(lookup(kHost).name, "phone-2");
}

TEST_F(NeighborTest, LongNameKeepsSixtyThreeCharactersAndShortBufferIsNotTerminated) {
    parse(dhcpFrame(5, hostName(std::string(70, 'n'))));
    EXPECT_EQ(lookup(kHost).name, std::string(63, 'n'));
    char name[4] = {'x', 'x', 'x', 'x'};
    EXPECT_EQ(getSnifferNeighborHost(kHost.data(), nullptr, name, sizeof name), 1);
    EXPECT_EQ(std::string(name, 4), "nnnn");
}

TEST_F(NeighborTest, LinkLocalAddressIsCachedButNotHandedOut) {
    parse(arp(2, kHost, Ip{169, 254, 7, 9}, kGateway, kGatewayIp));
    EXPECT_EQ(lookup(kHost).found, 0);
    EXPECT_NE(dump().find("IP 169.254.7.9"), std::string::npos);
}

TEST_F(NeighborTest, AgeingRemovesAtTwelveHundredSecondsAndDumpShowsTimeLeft) {
    parse(arp(2, kHost, kHostIp, kZero, kGatewayIp));
    fake::advanceSeconds(1);
    parse(arp(2, kGateway, kGatewayIp, kZero, kHostIp));
    fake::advanceSeconds(1198);
    EXPECT_NE(dump().find("IP 192.168.1.20 timeout    1 NAME"), std::string::npos);
    fake::advanceSeconds(6);
    EXPECT_NE(dump().find("IP 192.168.1.20 timeout   -5 NAME"), std::string::npos);
    EXPECT_NE(dump().find("IP 192.168.1.1 timeout   -4 NAME"), std::string::npos);
    fake::advanceSeconds(-5);  // host at 1200, gateway at 1199
    aging_neighbor_host(0);
    EXPECT_EQ(lookup(kHost).found, 0);
    EXPECT_EQ(lookup(kGateway).found, 1);
    delSnifferNeighborHost(kGateway.data());
    EXPECT_EQ(lookup(kGateway).found, 0);
}

struct IgnoredCase {
    const char *name;
    Frame frame;
};
void PrintTo(const IgnoredCase &c, std::ostream *os) {
    *os << c.name;
}
class IgnoredFrameTest : public NeighborTest, public ::testing::WithParamInterface<IgnoredCase> {};

TEST_P(IgnoredFrameTest, ChangesNothing) {
    EXPECT_EQ(parse(GetParam().frame), 0);
    EXPECT_EQ(dump(), "### Neighbor Host:\n\n");
}

Frame vlanTagged() {
    Frame f = arp(2, kHost, kHostIp, kGateway, kGatewayIp);
    Frame tag{0x81, 0x00, 0x00, 0x01};  // 802.1Q tag before the real EtherType
    f.insert(f.begin() + 12, tag.begin(), tag.end());
    return f;
}

const Frame kAckOnly{53, 1, 5};

INSTANTIATE_TEST_SUITE_P(
    Parser, IgnoredFrameTest,
    ::testing::Values(IgnoredCase{"ArpRequest", arp(1, kHost, kHostIp, kGateway, kGatewayIp)},
                      IgnoredCase{"VlanTagged", vlanTagged()},
                      IgnoredCase{"Discover", dhcpFrame(1, {50, 4, 10, 0, 0, 9})},
                      IgnoredCase{"Request", dhcpFrame(3, hostName("phone"))},
                      IgnoredCase{"UdpLengthBeyondData",
                                  toServer(dhcp(kHost, kHostIp, kAckOnly), 67, 1)},
                      IgnoredCase{"DhcpPayload239", toServer(Frame(239, 0))},
                      IgnoredCase{"OtherPort", toServer(dhcp(kHost, kHostIp, kAckOnly), 53)},
                      // The walk stops at an option running past the frame, before the type.
                      IgnoredCase{"OptionPastFrameEndsWalk",
                                  toServer(dhcp(kHost, kHostIp, {12, 40, 'a', 53, 1, 5}))}),
    CaseName());

TEST_F(NeighborTest, TruncatedFramesAreNeverReadPastTheirEnd) {
    Frame longHeader = toServer(Frame(300, 0));
    longHeader[14] = 0x4f;  // 60-byte IPv4 header
    for (const Frame &frame : {arp(2, kHost, kHostIp, kGateway, kGatewayIp),
                               ipv4(kHost, 2, kHostIp, Frame(8, 0)), longHeader, dhcpFrame(5)})
        for (size_t length = 0; length <= frame.size(); ++length)
            EXPECT_EQ(parse(frame, length), length < 14 ? -1 : 0) << length;
}

TEST_F(NeighborTest, OptionsCutAnywhereAreNeverReadPastTheFrame) {
    // Type and name, then empty options whose fixed-size data lies beyond the cut.
    Frame options{53, 1, 5, 12, 5, 'p', 'h', 'o', 'n', 'e', 50, 0, 3, 0, 53, 0};
    for (size_t count = 0; count <= options.size(); ++count) {
        Frame cut(options.begin(), options.begin() + count);
        EXPECT_EQ(parse(toServer(dhcp(kHost, kHostIp, cut))), 0) << count;
    }
    EXPECT_EQ(lookup(kHost).name, "phone");
}

TEST_F(NeighborTest, PacketLinesNameTheParser) {
    setSnifferMonitorLogLevel(kSnifferPacket);
    ::testing::internal::CaptureStdout();
    parse(dhcpFrame(5, hostName("tv")));
    std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(std::regex_replace(out, std::regex(":[0-9]+\\]"), ":N]"),
              "[Sniffer][parse_packet:N] ## UDP 0.0.0.0:68 -> 255.255.255.255:67\n"
              "[Sniffer][parse_packet:N] ### DHCP Packet: \n"
              "[Sniffer][parse_packet:N]     OP 2 TID 0xdeadbeef CLIENT 020000000001\n"
              "[Sniffer][parse_packet:N]     DHCP(5) Request 192.168.1.20 Gateway 0.0.0.0 "
              "Hostname tv\n");
}

}  // namespace
