#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <vector>

#include "fixture.h"
#include "hosts/probing.h"

namespace {

constexpr uint8_t kBridgeMac[6] = {0x0a, 0x77, 0xff, 0, 0, 1};

// The raw socket replaced by one end of a socketpair; the test reads the other.
int testPeer = -1;
int openerCalls = 0;
int openPairEnd(sockaddr_ll &) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends) != 0) return -1;
    testPeer = ends[1];
    ++openerCalls;
    return ends[0];
}

class ProbingTest : public HostrixTest {
protected:
    void SetUp() override {
        HostrixTest::SetUp();
        setMaxLanHostNum(kHostPoolSize);
        fake::Interface &br0 = fake::state().interfaces["br0"];
        br0.addr = htonl(0xc0a80101);
        std::copy(std::begin(kBridgeMac), std::end(kBridgeMac), br0.mac.begin());
        br0.hasMac = true;
        openerCalls = 0;
        setArpSocketOpener(openPairEnd);
    }
    void TearDown() override {
        if (testPeer >= 0) close(testPeer);
        testPeer = -1;
    }
    // A host with a probing series open: RETRIES left, last request AGO seconds back.
    hostEntry *probed(uint8_t k, uint32_t retries, uint32_t ago) {
        hostEntry *entry = addHost(fake::mac(2, 0, 0, 0, 0, k));
        entry->lanHost.arpReqIp = htonl(0xc0a80100u | k);
        entry->lanHost.arpRetryCnt = retries;
        entry->arpReqTime = static_cast<uint32_t>(fake::state().monotonic.tv_sec) - ago;
        return entry;
    }
    std::vector<std::vector<uint8_t>> framesSent() {
        std::vector<std::vector<uint8_t>> frames;
        uint8_t buffer[128];
        ssize_t got;
        while (testPeer >= 0 && (got = recv(testPeer, buffer, sizeof buffer, MSG_DONTWAIT)) > 0)
            frames.emplace_back(buffer, buffer + got);
        return frames;
    }
};

TEST_F(ProbingTest, RequestFrameHasTheArpLayout) {
    ASSERT_EQ(ARPRequestCreate(htonl(0xc0a80117)), 0);  // 192.168.1.23
    const std::vector<uint8_t> expected = {
        0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x0a, 0x77, 0xff, 0, 0, 1, 0x08, 0x06,  // to all, ARP
        0x00, 0x01, 0x08, 0x00, 6, 4, 0x00, 0x01,             // Ethernet/IPv4 request
        0x0a, 0x77, 0xff, 0, 0, 1, 0xc0, 0xa8, 0x01, 0x01,  // sender br0, 192.168.1.1
        0, 0, 0, 0, 0, 0, 0xc0, 0xa8, 0x01, 0x17,           // target unknown, 192.168.1.23
    };
    auto frame = arpRequestFrame();
    EXPECT_EQ(std::vector<uint8_t>(frame.begin(), frame.end()), expected);
}

TEST_F(ProbingTest, DueHostsShareOneSocketAndTheSeriesAdvances) {
    hostEntry *early = probed(3, 3, 19);
    hostEntry *spent = probed(4, 0, 100);
    EXPECT_EQ(sendARPRequest(), 0);
    EXPECT_EQ(openerCalls, 0);  // nothing due: no socket at all
    hostEntry *a = probed(1, 3, 20);
    hostEntry *b = probed(2, 1, 25);
    EXPECT_EQ(sendARPRequest(), 0);
    EXPECT_EQ(openerCalls, 1);
    std::vector<uint8_t> targets;  // last octets, in slot order
    for (const auto &frame : framesSent()) targets.push_back(frame.at(41));
    std::sort(targets.begin(), targets.end());
    EXPECT_EQ(targets, (std::vector<uint8_t>{1, 2}));
    EXPECT_EQ(a->lanHost.arpRetryCnt, 2u);
    EXPECT_EQ(b->lanHost.arpRetryCnt, 0u);
    EXPECT_EQ(a->arpReqTime, fake::state().monotonic.tv_sec);
    EXPECT_EQ(early->lanHost.arpRetryCnt, 3u);
    EXPECT_EQ(spent->lanHost.arpRetryCnt, 0u);
}

TEST_F(ProbingTest, UnbuildableFrameCountsAsSentButNoSocketKeepsTheSeries) {
    fake::state().interfaces["br0"].addr = 0;
    hostEntry *entry = probed(1, 3, 30);
    sendARPRequest();
    EXPECT_TRUE(framesSent().empty());
    EXPECT_EQ(entry->lanHost.arpRetryCnt, 2u);
    entry->arpReqTime -= 30;
    setArpSocketOpener([](sockaddr_ll &) { return -1; });
    EXPECT_EQ(sendARPRequest(), -1);
    EXPECT_EQ(entry->lanHost.arpRetryCnt, 2u);
}

TEST_F(ProbingTest, NeighbourSolicitationsSkipLinkLocalAndOfflineHosts) {
    const std::pair<const char *, int8_t> hosts[] = {
        {"2001:db8::5", 1}, {"fd00::5", 1}, {"fe80::1", 1}, {"2001:db8::6", 0}, {"::", 1}};
    uint8_t k = 1;
    for (auto [addr, valid] : hosts) {
        hostEntry *entry = addHost(fake::mac(2, 0, 0, 0, 0, k++));
        inet_pton(AF_INET6, addr, entry->lanHost.ipv6);
        entry->valid = valid;
    }
    sendIpv6NeighSolicit();
    std::vector<std::string> sent;
    for (auto &[ifname, addr] : fake::state().neighSolicits) {
        char text[INET6_ADDRSTRLEN];
        sent.push_back(ifname + " " + inet_ntop(AF_INET6, addr.data(), text, sizeof text));
    }
    std::sort(sent.begin(), sent.end());
    EXPECT_EQ(sent, (std::vector<std::string>{"br0 2001:db8::5", "br0 fd00::5"}));
}

TEST(GetIfindexDeathTest, MissingInterfaceEndsTheProcess) {
    EXPECT_EXIT(get_ifindex("hx-none0"), ::testing::ExitedWithCode(1), "");
    EXPECT_GT(get_ifindex("lo"), 0);
}

}  // namespace
