#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <chrono>
#include <cstring>

#include "control/hostapd_event.h"
#include "core/unique_fd.h"
#include "root_fixture.h"

namespace {

constexpr std::array<uint8_t, kMacLen> kStation{0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x5f};
const std::string kFdbDel = "bridge fdb del 0a:1b:2c:3d:4e:5f dev wlan0-vap1 vlan 1 master";

TEST(EventParse, OverLongWordsAreCutWithoutShiftingTheMac) {
    std::string text = std::string(300, 'w') + " " + std::string(400, 'E') + " 0a:1b:2c:3d:4e:5f";
    HostapdEvent event{};
    ASSERT_TRUE(parseHostapdEvent(text, event));
    EXPECT_EQ(event.word, std::string(15, 'w'));
    EXPECT_EQ(event.name, std::string(255, 'E'));
    EXPECT_EQ(std::to_array(event.mac), kStation);
}

class HostapdEventTest : public RootedTest {
protected:
    void SetUp() override {
        RootedTest::SetUp();
        setMaxLanHostNum(kHostPoolSize);
        station = addHost(fake::mac(0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x5f), "wlan0-vap1");
    }
    std::string process(std::string text) {
        ::testing::internal::CaptureStderr();
        process_hostapd_event(text.data());
        return ::testing::internal::GetCapturedStderr();
    }
    hostEntry *station = nullptr;
};

TEST_F(HostapdEventTest, DepartureDropsTheFdbEntryOfTheTableInterfaceAndDisconnects) {
    EXPECT_EQ(process("wlan1 AP-STA-DISCONNECTED 0a:1b:2c:3d:4e:5f"),
              "process_hostapd_event wlan1 AP-STA-DISCONNECTED 0a:1b:2c:3d:4e:5f\n");
    EXPECT_EQ(fake::state().commands, std::vector<std::string>{kFdbDel});
    EXPECT_EQ(station->lanHost.disConnect, 1);
    process("wlan1 AP-STA-DISCONNECTED 0a:1b:2c:3d:4e:5f");  // already departed: nothing more
    EXPECT_EQ(fake::state().commands.size(), 1u);
    EXPECT_EQ(process("w\x1b[2J AP-STA-\xff 0a:1b:2c:3d:4e:5f"),
              "process_hostapd_event w\\x1b[2J AP-STA-\\xff 0a:1b:2c:3d:4e:5f\n");
}

TEST_F(HostapdEventTest, OnlyAnExactDepartureOfAKnownHostActs) {
    const std::pair<const char *, bool> cases[] = {
        {"w AP-STA-DISCONNECTED 0A:1B:2C:3D:4E:5F", true},  // upper case
        {"w AP-STA-DISCONNECTED a:1b:2c:3d:4e:5f", true},   // one-digit group
        {" w\tAP-STA-DISCONNECTED\n 0a:1b:2c:3d:4e:5f:7 x", true},
        {"w AP-STA-DISCONNECTED 0a:1b:2c:3d:4e:60", false},  // unknown MAC
        {"w AP-STA-CONNECTED 0a:1b:2c:3d:4e:5f", false},
        {"w AP-STA-DISCONNECTED2 0a:1b:2c:3d:4e:5f", false},
        {"w AP-STA-DISCONNECTED", false},
        {"w AP-STA-DISCONNECTED 0a:1b:2c:3d:4e", false},
        {"w AP-STA-DISCONNECTED 0a1:1b:2c:3d:4e:5f", false},
        {"w AP-STA-DISCONNECTED 0a :1b:2c:3d:4e:5f", false},
        {"\x01\xff:: \x7f AP-STA-DISCONNECTED ::", false}};
    for (const auto &[text, departs] : cases) {
        SetUp();
        process(text);
        EXPECT_EQ(fake::state().commands.size(), departs ? 1u : 0u) << text;
        EXPECT_EQ(station->valid, departs ? 0 : 1) << text;
    }
}

// The real listening socket in the temporary root, fed by real connections.
class HostapdSocketTest : public HostapdEventTest {
protected:
    void SetUp() override {
        HostapdEventTest::SetUp();
        int fd = -1;
        ::testing::internal::CaptureStdout();  // forcing buffer sizes needs privileges
        ASSERT_EQ(init_hostapd_action_sock(&fd), 0);
        ::testing::internal::GetCapturedStdout();
        listener.reset(fd);
    }
    UniqueFd connectClient(const std::string &text = "") {
        UniqueFd fd(socket(AF_UNIX, SOCK_STREAM, 0));
        sockaddr_un addr{AF_UNIX, {}};
        std::strcpy(addr.sun_path, hostrixPath(HostrixFile::HostapdSocket));
        EXPECT_EQ(connect(fd.get(), reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
        EXPECT_EQ(send(fd.get(), text.data(), text.size(), 0), ssize_t(text.size()));
        return fd;
    }
    // The text left in the buffer; LOGGED gets what went to standard error.
    std::string receive(std::string *logged = nullptr) {
        ::testing::internal::CaptureStderr();
        recv_hostapd_event(listener.get(), buffer, sizeof buffer);
        std::string text = ::testing::internal::GetCapturedStderr();
        if (logged) *logged = text;
        return buffer;
    }
    UniqueFd listener;
    char buffer[kHostapdEventBufSize] = "previous event";
};

TEST_F(HostapdSocketTest, EventTextArrivesCutToTheBufferAndAnEmptyConnectionLeavesNothing) {
    connectClient("wlan0 AP-STA-DISCONNECTED 0a:1b:2c:3d:4e:5f");
    EXPECT_EQ(receive(), "wlan0 AP-STA-DISCONNECTED 0a:1b:2c:3d:4e:5f");
    connectClient(std::string(1000, 'x'));
    EXPECT_EQ(receive(), std::string(kHostapdEventBufSize - 1, 'x'));
    connectClient();  // closed without text
    EXPECT_EQ(receive(), "");
}

// The peer's bytes reach the log escaped, on one line; the buffer keeps them as sent.
TEST_F(HostapdSocketTest, EventLineIsLoggedEscapedOnOneLine) {
    const std::pair<std::string, std::string> cases[] = {
        {"wlan0: AP-STA-DISCONNECTED 0a:77:00:00:00:03\n",
         "EVENT: wlan0: AP-STA-DISCONNECTED 0a:77:00:00:00:03"},
        {"w AP-STA-DISCONNECTED 0a:1b:2c:3d:4e:5f\x1b[2J\x1b]0;owned\x07\r\n",
         R"(EVENT: w AP-STA-DISCONNECTED 0a:1b:2c:3d:4e:5f\x1b[2J\x1b]0;owned\x07)"},
        {"a\nEVENT: forged\x7f\\\x80\xff\n\n", R"(EVENT: a\x0aEVENT: forged\x7f\\\x80\xff\x0a)"},
    };
    for (const auto &[sent, line] : cases) {
        connectClient(sent);
        std::string logged;
        EXPECT_EQ(receive(&logged), sent);
        EXPECT_EQ(logged, line + "\n");
    }
}

TEST_F(HostapdSocketTest, PeerThatSaysNothingIsGivenUpAfterAboutASecond) {
    UniqueFd client = connectClient();
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(receive(), "");
    auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(800));
    EXPECT_LT(waited, std::chrono::milliseconds(2500));
}

TEST_F(HostapdSocketTest, TwoConnectionsAreProcessedOnceEachInOrder) {
    addHost(fake::mac(0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x60), "wlan1");
    connectClient("w AP-STA-DISCONNECTED 0a:1b:2c:3d:4e:5f");
    connectClient("w AP-STA-DISCONNECTED 0a:1b:2c:3d:4e:60");
    for (int pass = 0; pass < 3; ++pass) process(receive());
    EXPECT_EQ(fake::state().commands,
              (std::vector<std::string>{
                  kFdbDel, "bridge fdb del 0a:1b:2c:3d:4e:60 dev wlan1 vlan 1 master"}));
}

}  // namespace
