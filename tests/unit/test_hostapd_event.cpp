// The authenticator's event channel: the line parser and the actions on the table, and
// the real listening socket in a temporary root.
#include "control/ctrl_socket.h"
#include "control/hostapd_event.h"
#include "ctrl_request.h"
#include "root_fixture.h"

namespace {

const fake::Mac kStation = fake::mac(0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x5f);
const std::string kFdbDel = "bridge fdb del 0a:1b:2c:3d:4e:5f dev wlan0-vap1 vlan 1 master";

struct HostapdEventTest : RootedTest {
    void SetUp() override {
        RootedTest::SetUp();
        station = addHost(kStation, "wlan0-vap1");
    }
    static std::string process(std::string text) {
        return printedBy([&text] { process_hostapd_event(text.data()); }, true);
    }
    hostEntry *station = nullptr;
};

// The table's interface, not the event's word, names the forwarding entry to drop.
TEST_F(HostapdEventTest, OnlyAnExactDepartureOfAValidHostActs) {
    EXPECT_EQ(process("wlan1 AP-STA-DISCONNECTED 0a:1b:2c:3d:4e:5f"),
              "process_hostapd_event wlan1 AP-STA-DISCONNECTED 0a:1b:2c:3d:4e:5f\n");
    process("wlan1 AP-STA-DISCONNECTED 0a:1b:2c:3d:4e:5f");  // already departed: nothing more
    EXPECT_EQ(fake::state().commands, std::vector<std::string>{kFdbDel});
    EXPECT_EQ(std::tuple(station->valid, station->lanHost.disConnect), std::tuple(0, 1));
    EXPECT_EQ(process("w\x1b[2J AP-STA-\xff 0a:1b:2c:3d:4e:5f"),
              "process_hostapd_event w\\x1b[2J AP-STA-\\xff 0a:1b:2c:3d:4e:5f\n");
    const std::pair<std::string, bool> cases[] = {
        {"w AP-STA-DISCONNECTED 0A:1B:2C:3D:4E:5F", true},  // upper case
        {"w AP-STA-DISCONNECTED a:1b:2c:3d:4e:5f", true},   // one-digit group
        {" w\tAP-STA-DISCONNECTED\n 0a:1b:2c:3d:4e:5f:7 x", true},
        {std::string(300, 'w') + " AP-STA-DISCONNECTED 0a:1b:2c:3d:4e:5f", true},  // word cut
        {"w AP-STA-DISCONNECTED 0a:1b:2c:3d:4e:60", false},                        // unknown MAC
        {"w AP-STA-CONNECTED 0a:1b:2c:3d:4e:5f", false},
        {"w AP-STA-DISCONNECTED2 0a:1b:2c:3d:4e:5f", false},
        {"w AP-STA-DISCONNECTED", false},
        {"w AP-STA-DISCONNECTED 0a:1b:2c:3d:4e", false},
        {"w AP-STA-DISCONNECTED 00a:1b:2c:3d:4e:5f", false},
        {"w AP-STA-DISCONNECTED 0a :1b:2c:3d:4e:5f", false}};
    for (const auto &[text, departs] : cases) {
        SetUp();
        process(text);
        EXPECT_EQ(std::tuple(fake::state().commands.size(), station->valid),
                  std::tuple(departs ? 1u : 0u, departs ? 0 : 1))
            << text;
    }
}

struct HostapdSocketTest : HostapdEventTest {
    void SetUp() override {
        HostapdEventTest::SetUp();
        int fd = -1;
        ASSERT_EQ(init_hostapd_action_sock(&fd), 0);
        listener.reset(fd);
    }
    void TearDown() override {
        msg_close_sockfd();
        HostapdEventTest::TearDown();
    }
    static void connectClient(const std::string &text) {
        UniqueFd fd = connectTo(hostrixPath(HostrixFile::HostapdSocket));
        EXPECT_EQ(send(fd.get(), text.data(), text.size(), 0), ssize_t(text.size()));
    }
    // The text left in the buffer, and what went to standard error.
    std::pair<std::string, std::string> receive() {
        const std::string log =
            printedBy([this] { recv_hostapd_event(listener.get(), buffer, sizeof buffer); }, true);
        return {buffer, log};
    }
    UniqueFd listener;
    char buffer[kHostapdEventBufSize] = "previous event";
};

// Each connection's text once, cut to the buffer; an empty one leaves nothing. The
// peer's bytes reach the log escaped, on one line.
TEST_F(HostapdSocketTest, EachConnectionDeliversItsTextOnceAndLogsItEscaped) {
    const std::pair<std::string, std::string> cases[] = {
        {"wlan0: AP-STA-DISCONNECTED 0a:77:00:00:00:03\n",
         "EVENT: wlan0: AP-STA-DISCONNECTED 0a:77:00:00:00:03\n"},
        {"w AP-STA-DISCONNECTED 0a:1b:2c:3d:4e:5f\x1b[2J\x1b]0;owned\x07\r\n",
         "EVENT: w AP-STA-DISCONNECTED 0a:1b:2c:3d:4e:5f\\x1b[2J\\x1b]0;owned\\x07\n"},
        {"a\nEVENT: forged\x7f\\\x80\n\n", "EVENT: a\\x0aEVENT: forged\\x7f\\\\\\x80\\x0a\n"},
        {std::string(1000, 'x'), "EVENT: " + std::string(1000, 'x') + "\n"},
        {"", ""}};
    for (const auto &[sent, line] : cases) connectClient(sent);
    for (const auto &[sent, line] : cases)
        EXPECT_EQ(receive(), std::pair(sent.substr(0, kHostapdEventBufSize - 1), line));
}

// Bursts of departures need room: the event socket's buffers are four times the
// default, the control socket's twice.
TEST_F(HostapdSocketTest, EventBuffersAreTwiceTheControlSocketsSize) {
    ASSERT_GE(msg_create_sockfd(), 0);
    UniqueFd plain(socket(AF_UNIX, SOCK_STREAM, 0));
    auto size = [](int fd, int option) {
        int value = 0;
        socklen_t length = sizeof value;
        getsockopt(fd, SOL_SOCKET, option, &value, &length);
        return value;
    };
    const int base = size(plain.get(), SO_RCVBUF);  // the kernel reports twice what is set
    for (int option : {SO_RCVBUF, SO_SNDBUF}) {
        EXPECT_EQ(size(msgSockFd(), option), 4 * base) << option;
        EXPECT_EQ(size(listener.get(), option), 8 * base) << option;
    }
}

}  // namespace
