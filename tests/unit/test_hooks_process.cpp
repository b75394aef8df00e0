// The real hook binaries (dnsmasq's dhcp-script, hostapd_cli's action) against
// sockets in a temporary HOSTRIX_ROOT: what arrives, and that they exit 0 and keep
// quiet whatever their arguments and whether or not a daemon listens.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "control/ctrl_msg.h"
#include "core/unique_fd.h"
#include "temp_dir.h"

namespace {

using Strings = std::vector<std::string>;
const char *const kDhcpScript = HOOK_DHCP_SCRIPT_BINARY;
const char *const kHostapdAction = HOOK_HOSTAPD_ACTION_BINARY;
const std::string kMac = "0a:77:00:00:00:03";
const Strings kRelease = {"del", kMac, "10.0.0.9"};
const Strings kStationLeft = {"phy0-ap0", "AP-STA-DISCONNECTED", "0A:77:00:00:00:03"};

// A socket at PATH that queues connections; BACKLOG -1: bound, nobody listening;
// 0: listening with its backlog already full.
struct Listener {
    Listener(const std::string &path, int backlog) {
        std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
        EXPECT_EQ(bind(fd.get(), address, sizeof addr), 0);
        EXPECT_TRUE(backlog < 0 || listen(fd.get(), backlog) == 0);
        EXPECT_TRUE(backlog != 0 || connect(filler.get(), address, sizeof addr) == 0);
    }
    ~Listener() { unlink(addr.sun_path); }
    void receive(Strings &messages) {  // what every queued connection sent
        for (UniqueFd conn; conn.reset(accept(fd.get(), nullptr, nullptr)), conn.valid();) {
            char chunk[8192];
            std::string &bytes = messages.emplace_back();
            for (ssize_t n; (n = read(conn.get(), chunk, sizeof chunk)) > 0;)
                bytes.append(chunk, n);
        }
    }

    sockaddr_un addr{AF_UNIX, {}};
    sockaddr *address = reinterpret_cast<sockaddr *>(&addr);
    UniqueFd fd{socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0)},
        filler{socket(AF_UNIX, SOCK_STREAM, 0)};
};

class HookTest : public ::testing::Test {
   protected:
    void SetUp() override {
        for (const char *folder : {"var/run", "etc/hostrix"})
            std::filesystem::create_directories(dir.file(folder));
        std::ofstream(dir.file("etc/hostrix/mib.conf")) << "ifname.wlan0 = phy0-ap0\n";
    }
    // BINARY with ARGS to its end ("timeout" ends a hang with 124): exit code and stderr.
    std::pair<int, std::string> run(const char *binary, const Strings &args) {
        std::string command = "HOSTRIX_ROOT=" + dir.path + " timeout 5 " + binary;
        for (const std::string &arg : args) command += " '" + arg + "'";
        int status = std::system((command + " 2>" + dir.file("err")).c_str());
        return {WEXITSTATUS(status), readText(dir.file("err"))};
    }
    TempDir dir;
    const std::string control = dir.file("var/run/.hostrix_msg");
    const std::string events = dir.file("var/run/.hostapd_action_sock");
};

// A lease deletion sends one release request (no reply wanted); a station event one
// line under the gateway's interface name; anything else nothing.
TEST_F(HookTest, ALeaseDeletionSendsOneReleaseAStationEventOneLine) {
    ctrlMsg_t msg{};
    msg.cmd = 0x800000;
    std::memcpy(msg.data, "\x0a\x77\0\0\0\x03", kCtrlMacLen);
    const std::string release(reinterpret_cast<const char *>(&msg), sizeof msg);
    const std::tuple<const char *, Strings, Strings> cases[] = {
        {kDhcpScript, {"del", kMac, "10.0.0.9", "phone", "extra"}, {release}},
        {kDhcpScript, {"add", kMac, "10.0.0.9", "phone"}, {}},
        {kDhcpScript, {"arp-del", kMac, "10.0.0.9"}, {}},
        {kDhcpScript, {"del", "1234567", "fd00::10"}, {}},  // DHCPv6: an IAID, no MAC
        {kDhcpScript, {"del", kMac, "fd00::10"}, {}},
        {kDhcpScript, {"del", kMac}, {}},
        {kHostapdAction, kStationLeft, {"wlan0 AP-STA-DISCONNECTED " + kMac}},
        {kHostapdAction, {"wlan1", "AP-STA-CONNECTED", kMac, "x"},
         {"wlan1 AP-STA-CONNECTED " + kMac}},
        {kHostapdAction, {"phy0-ap0", "AP-STA-DISCONNECTED"}, {}},
        {kHostapdAction, {"phy0-ap0", "AP-STA-DISCONNECTED", "0a:77"}, {}},
        {kHostapdAction, {"phy0-ap0", "AP-STA-DISCONNECTED\nX", kMac}, {}},  // two lines
        {kHostapdAction, {"phy0-ap0", "AP-STA DISCONNECTED", kMac}, {}},     // four words
    };
    Listener daemon(control, 8), authenticator(events, 8);
    for (const auto &[binary, args, arrived] : cases) {
        SCOPED_TRACE(testing::PrintToString(args));
        EXPECT_EQ(run(binary, args), std::pair(0, std::string()));
        Strings got;
        daemon.receive(got), authenticator.receive(got);
        EXPECT_EQ(got, arrived);
    }
}

// No socket, or one nobody listens on: the daemon is not running, which is no failure.
// A daemon that does not accept (its backlog full) costs one line, and no hang.
TEST_F(HookTest, WithoutAWorkingDaemonBothExitZero) {
    EXPECT_EQ(run(kDhcpScript, kRelease), std::pair(0, std::string()));
    EXPECT_EQ(run(kHostapdAction, kStationLeft), std::pair(0, std::string()));
    Listener refused(control, -1), stuck(events, 0);
    EXPECT_EQ(run(kDhcpScript, kRelease), std::pair(0, std::string()));
    auto [code, err] = run(kHostapdAction, kStationLeft);
    EXPECT_EQ(std::tuple(code, std::count(err.begin(), err.end(), '\n')), std::tuple(0, 1));
    EXPECT_NE(err.find(events), std::string::npos) << err;
}

}  // namespace
