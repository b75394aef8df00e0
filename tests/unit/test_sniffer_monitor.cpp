// The sniffer's kernel filter and wait on socket pairs; its thread and interface dump
// against real bridges in a private network namespace. The lab's sniffer test follows
// ports as they come and go.
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>

#include "core/unique_fd.h"
#include "fixture.h"
#include "netns_child.h"
#include "sniffer/link_events.h"
#include "sniffer/monitor_intf.h"

namespace {

using Frame = std::vector<uint8_t>;

Frame arpFrame(unsigned protocol, unsigned operation) {
    Frame f(64);
    f[12] = 8, f[13] = 6, f[16] = uint8_t(protocol >> 8), f[17] = uint8_t(protocol);
    f[21] = uint8_t(operation);
    return f;
}

// IHL words of IPv4 header (options all zero), then UDP to PORT.
Frame ipv4Frame(unsigned protocol, unsigned port, unsigned fragment = 0, unsigned ihl = 5) {
    Frame f(64);
    const size_t udp = 14 + ihl * 4;
    f[12] = 8, f[14] = uint8_t(0x40 + ihl), f[20] = uint8_t(fragment >> 8);
    f[21] = uint8_t(fragment), f[23] = uint8_t(protocol);
    f[udp + 2] = uint8_t(port >> 8), f[udp + 3] = uint8_t(port);
    return f;
}

// The kernel runs the filter on a datagram socket as it would on the packet socket.
TEST(SnifferFilter, LetsThroughOnlyIpv4ArpRepliesDhcpToTheServerAndIgmp) {
    const std::pair<Frame, bool> cases[] = {
        {arpFrame(0x0800, 2), true},       {arpFrame(0x0800, 1), false},
        {arpFrame(0x86dd, 2), false},      {ipv4Frame(17, 67), true},
        {ipv4Frame(17, 67, 0, 6), true},   {ipv4Frame(17, 68), false},
        {ipv4Frame(17, 67, 0x2000), true}, {ipv4Frame(17, 67, 0x2001), false},
        {ipv4Frame(17, 67, 0x4000), true}, {ipv4Frame(2, 0), true},
        {ipv4Frame(6, 67), false},
    };
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, pair), 0);
    const UniqueFd receiver(pair[0]), sender(pair[1]);
    const sock_fprog program{kSnifferFilter.size(),
                             const_cast<sock_filter *>(kSnifferFilter.data())};
    ASSERT_EQ(setsockopt(pair[0], SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program), 0);
    for (const auto &[frame, passes] : cases) {
        ASSERT_EQ(send(sender.get(), frame.data(), frame.size(), 0), ssize_t(frame.size()));
        uint8_t received[128];
        EXPECT_EQ(recv(receiver.get(), received, sizeof received, MSG_DONTWAIT) > 0, passes)
            << &frame - &cases[0].first;
    }
}

// A wait that brings something leaves the rest of the 5 s to the next one, so that
// steady traffic cannot hold off ageing; a wait that runs it down ages the cache
// (entries of 1200 s and more only) and starts a new 5 s.
TEST_F(HostrixTest, SnifferAgeingBudgetCarriesOverBetweenWaits) {
    const uint8_t oldMac[6] = {2, 0, 0, 0, 0, 1}, youngMac[6] = {2, 0, 0, 0, 0, 2};
    const uint32_t ip = htonl(0x0a000001);
    update_neighbor_host(oldMac, &ip, nullptr);
    fake::advanceSeconds(kNeighborLifetimeSec);
    update_neighbor_host(youngMac, &ip, nullptr);
    int events[2];  // a datagram pair stands in for the link-event socket
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, events), 0);
    const UniqueFd receiver(events[0]), sender(events[1]);
    ASSERT_EQ(send(sender.get(), "x", 1, 0), 1);
    timeval timeout{5, 0};
    EXPECT_EQ(sniffer_wait_once(receiver.get(), timeout), 0);
    EXPECT_TRUE(timeout.tv_sec < 5 && (timeout.tv_sec > 0 || timeout.tv_usec > 0));
    EXPECT_EQ(getSnifferNeighborHost(oldMac, nullptr, nullptr, 0), 1);  // not yet
    timeout = {0, 1000};
    EXPECT_EQ(sniffer_wait_once(receiver.get(), timeout), 0);  // the message was read
    EXPECT_EQ(std::pair(timeout.tv_sec, timeout.tv_usec), std::pair(time_t{5}, suseconds_t{0}));
    EXPECT_EQ(getSnifferNeighborHost(oldMac, nullptr, nullptr, 0), 0);
    EXPECT_EQ(getSnifferNeighborHost(youngMac, nullptr, nullptr, 0), 1);
}

bool shellSays(const std::string &command) {
    return std::system(command.c_str()) == 0;
}

// In the child: the bridge br0 with the veth ports nas0_0 and eth0.2, all up, and the
// kernel's upper and lower links copied into the fake sysfs that the sniffer reads.
bool makeBridge() {
    if (!shellSays("ip link add br0 type bridge && ip link set br0 up && "
                   "for p in nas0_0 eth0.2 nas1_0; do ip link add $p type veth peer name x$p && "
                   "ip link set $p master br0 && ip link set $p up && ip link set x$p up "
                   "|| exit 1; done"))
        return false;
    for (const auto &link : std::filesystem::directory_iterator("/sys/class/net"))
        for (const auto &entry : std::filesystem::directory_iterator(link.path()))
            if (const std::string name = entry.path().filename();
                name.starts_with("upper_") || name.starts_with("lower_"))
                fake::state().kernelFiles[entry.path()] = "";
    return true;
}

// Bounded wait for the sniffer thread to get somewhere; false if it never does.
template <typename F>
bool eventually(F &&condition) {
    for (int tries = 0; tries < 1000 && !condition(); ++tries) usleep(10000);
    return condition();
}

using SnifferMonitorTest = HostrixTest;

// Looked up in this process: a stop must have ended the thread by the time it returns.
bool threadNamedSnifferExists() {
    return shellSays("grep -qx Sniffer /proc/" + std::to_string(getpid()) + "/task/*/comm");
}

// The sniffer's link listener, the last descriptor its set-up opens, binds to our pid.
bool linkListenerBound() {
    return shellSays("awk '$2 == 0 && $3 == " + std::to_string(getpid()) +
                     " { found = 1 } END { exit !found }' /proc/net/netlink");
}

// A cancelled sniffer leaves its list; a wait that fails for good ends the thread its
// normal way, emptying the list and the cache, and the next start reaps it.
TEST_F(SnifferMonitorTest, ThreadTakesItsListAndStopsForGood) {
    expectPassesInPrivateNetns([] {
        if (!makeBridge()) return kNetnsNoSetup;
        setSnifferMonitorLogLevel(kSnifferNotice);
        ::testing::internal::CaptureStdout();
        const bool nullListStartsNothing = startSnifferMonitor(nullptr) == 0 && !snifferRunning();
        // The 17-character element is skipped, the 16-character one tried; eth0.2 comes last.
        const int started =
            startSnifferMonitor("br0,br0,abcdefghijklmnopq,abcdefghijklmnop,eth0.2");
        const int again = startSnifferMonitor("br0");
        const bool setUp = eventually([] { return find_monitor_intf("eth0.2") != nullptr; });
        const bool named = threadNamedSnifferExists();
        stopSnifferMonitor();
        const bool stopped = !threadNamedSnifferExists() && !snifferRunning();
        dump_monitor_intf();  // as SIGHUP shows it; the lab's sniffer test reads it too
        const std::string out = ::testing::internal::GetCapturedStdout();
        NETNS_CHECK(nullListStartsNothing && started == 0 && again == -1 && setUp && named);
        NETNS_CHECK(stopped && find_monitor_intf("nas0_0")->master == find_monitor_intf("br0"));
        NETNS_CHECK(!find_monitor_intf("eth0.2")->master);  // its own element, not a port
        const auto has = [&out](std::string_view text) { return out.find(text) != out.npos; };
        const std::string duplicate = "Interface(br0) already monitor\n";
        NETNS_CHECK(has(duplicate) && out.find(duplicate) == out.rfind(duplicate));
        NETNS_CHECK(has("Cannot get interface(abcdefghijklmnop)\n") && !has("abcdefghijklmnopq"));
        NETNS_CHECK(has(" MASTER NULL\n") && has(" MASTER br0\n"));
        snifferReset();

        setSnifferMonitorLogLevel(0);  // the closed socket's failed receive is expected
        const uint8_t mac[6] = {0x02, 0, 0, 0, 0, 0x07};
        const uint32_t ip = htonl(0x0a000007);
        update_neighbor_host(mac, &ip, nullptr);
        NETNS_CHECK(startSnifferMonitor("br0") == 0 && eventually(linkListenerBound));
        close(find_monitor_intf("nas0_0")->sock);                  // the next wait fails with EBADF
        (void)shellSays("ip link add x0 type veth peer name x1");  // ends the current wait
        NETNS_CHECK(eventually([] { return !snifferRunning(); }));
        NETNS_CHECK(!find_monitor_intf("br0") && !getSnifferNeighborHost(mac, nullptr, nullptr, 0));
        NETNS_CHECK(startSnifferMonitor("br0") == 0);
        NETNS_CHECK(eventually([] { return find_monitor_intf("nas0_0") != nullptr; }));
        snifferReset();
        return kNetnsPassed;
    });
}

}  // namespace
