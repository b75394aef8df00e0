#include <sys/socket.h>

#include "fixture.h"
#include "hosts/probing.h"

namespace {

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

struct ProbingTest : HostrixTest {
    void SetUp() override {
        HostrixTest::SetUp();
        fake::state().interfaces["br0"] = {
            .addr = htonl(0xc0a80101), .mac = fake::mac(0x0a, 0x77, 0xff, 0, 0, 1), .hasMac = true};
        openerCalls = 0;
        setArpSocketOpener(openPairEnd);
    }
    void TearDown() override {
        if (testPeer >= 0) close(testPeer);
        testPeer = -1;
    }
    // A host with a probing series open: RETRIES left, last request AGO seconds back.
    hostEntry *probed(uint8_t k, uint32_t retries, uint32_t ago) {
        hostEntry *entry = addHost(localMac(k));
        entry->lanHost.arpReqIp = htonl(0xc0a80100u | k);
        entry->lanHost.arpRetryCnt = retries;
        entry->arpReqTime = static_cast<uint32_t>(fake::state().monotonic.tv_sec) - ago;
        return entry;
    }
    // Last octet of the target of each frame sent.
    std::vector<uint8_t> targetsSent() {
        std::vector<uint8_t> targets;
        uint8_t frame[64];
        while (recv(testPeer, frame, sizeof frame, MSG_DONTWAIT) == kArpFrameLen)
            targets.push_back(frame[41]);
        return targets;
    }
};

// The configuration library may answer -1 with the MAC filled in: still a frame.
TEST_F(ProbingTest, RequestFrameHasTheArpLayout) {
    const std::vector<uint8_t> expected = {
        0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x0a, 0x77, 0xff, 0,
        0,    1,    0x08, 0x06,                                      // to all, ARP
        0x00, 0x01, 0x08, 0x00, 6,    4,    0x00, 0x01,              // Ethernet/IPv4 request
        0x0a, 0x77, 0xff, 0,    0,    1,    0xc0, 0xa8, 0x01, 0x01,  // sender br0, 192.168.1.1
        0,    0,    0,    0,    0,    0,    0xc0, 0xa8, 0x01, 0x17,  // target unknown, 192.168.1.23
    };
    for (int result : {0, -1}) {
        fake::state().interfaces["br0"].macResult = result;
        ASSERT_EQ(ARPRequestCreate(htonl(0xc0a80117)), 0) << result;
        auto frame = arpRequestFrame();
        EXPECT_EQ(std::vector<uint8_t>(frame.begin(), frame.end()), expected) << result;
    }
}

// Only series with requests left whose interval has passed are due, all on one socket
// and none without; the log numbers each request within its series.
TEST_F(ProbingTest, DueHostsShareOneSocketAndTheSeriesAdvances) {
    hostEntry *early = probed(3, 3, 19);
    probed(4, 0, 100);
    EXPECT_EQ(sendARPRequest(), 0);
    EXPECT_EQ(openerCalls, 0);
    hostEntry *first = probed(1, 3, 20);
    hostEntry *last = probed(2, 1, 25);
    dbg_level = DBG_AGEING;
    EXPECT_EQ(printedBy([] { EXPECT_EQ(sendARPRequest(), 0); }),
              "[Hostrix]:send ARP Request to c0a80102 (3/3).\n"
              "[Hostrix]:send ARP Request to c0a80101 (1/3).\n");
    EXPECT_EQ(std::tuple(openerCalls, targetsSent()), std::tuple(1, std::vector<uint8_t>{2, 1}));
    EXPECT_EQ(std::tuple(first->lanHost.arpRetryCnt, last->lanHost.arpRetryCnt,
                         early->lanHost.arpRetryCnt, first->arpReqTime),
              std::tuple(2u, 0u, 3u, uint32_t(fake::state().monotonic.tv_sec)));
}

TEST_F(ProbingTest, NeighbourSolicitationsSkipLinkLocalAndOfflineHosts) {
    const char *addresses[] = {"2001:db8::5", "fd00::5", "fe80::1", "2001:db8::6", "::"};
    for (uint8_t k = 1; k <= 5; ++k) {
        hostEntry *entry = addHost(localMac(k));
        inet_pton(AF_INET6, addresses[k - 1], entry->lanHost.ipv6);
        entry->valid = k != 4;
    }
    sendIpv6NeighSolicit();
    std::vector<std::string> sent;
    char text[INET6_ADDRSTRLEN];
    for (auto &[ifname, addr] : fake::state().neighSolicits)
        sent.push_back(ifname + " " + inet_ntop(AF_INET6, addr.data(), text, sizeof text));
    EXPECT_EQ(sent, (std::vector<std::string>{"br0 fd00::5", "br0 2001:db8::5"}));  // slot order
}

}  // namespace
