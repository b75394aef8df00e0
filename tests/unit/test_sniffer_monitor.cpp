// The sniffer's kernel filter on crafted frames, then its interface list and thread
// against real bridges in a private network namespace.
#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <string>
#include <vector>

#include "core/unique_fd.h"
#include "fixture.h"
#include "netns_child.h"
#include "sniffer/monitor_intf.h"

namespace {

using Frame = std::vector<uint8_t>;

Frame operator+(Frame a, const Frame &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

Frame ethernet(uint16_t type) {
    return Frame(6, 0xff) + Frame{0x02, 0, 0, 0, 0, 0x01} +
           Frame{uint8_t(type >> 8), uint8_t(type)};
}

// One field per comment, as on the wire.
// clang-format off
Frame arp(uint16_t protocol, uint8_t operation) {
    return ethernet(0x0806) + Frame{0, 1,                                       // hardware type
                                    uint8_t(protocol >> 8), uint8_t(protocol),  // protocol
                                    6, 4,                                       // address sizes
                                    0, operation} +                             // operation
           Frame(20, 0x11);                                                     // the two pairs
}

// OPTIONS (a multiple of 4 bytes) lengthen the header.
Frame ipv4(uint8_t protocol, const Frame &payload, uint16_t fragment = 0,
           const Frame &options = {}) {
    return ethernet(0x0800) + Frame{uint8_t(0x45 + options.size() / 4), 0,  // version, IHL; TOS
                                    0, 0, 0, 0,                             // total length, id
                                    uint8_t(fragment >> 8), uint8_t(fragment),  // flags, offset
                                    64, protocol, 0, 0,                     // TTL, protocol, sum
                                    10, 0, 0, 2, 255, 255, 255, 255} +      // source, destination
           options + payload;
}
// clang-format on

Frame cut(Frame frame, size_t length) {
    frame.resize(length);
    return frame;
}

Frame udpTo(uint16_t port) {
    return Frame{0, 68, uint8_t(port >> 8), uint8_t(port), 0, 8, 0, 0};  // ports, length, sum
}

struct FilterCase {
    const char *name;
    Frame frame;
    bool passes;
};

TEST(SnifferFilter, LetsThroughOnlyIpv4ArpRepliesDhcpToTheServerAndIgmp) {
    const Frame nops{1, 1, 1, 1};  // read as the port if the header length were ignored
    const FilterCase cases[] = {
        {"arp reply", arp(0x0800, 2), true},
        {"arp request", arp(0x0800, 1), false},
        {"arp reply, not IPv4", arp(0x86dd, 2), false},
        {"udp to 67", ipv4(17, udpTo(67)), true},
        {"udp to 67 after options", ipv4(17, udpTo(67), 0, nops), true},
        {"udp to 68", ipv4(17, udpTo(68)), false},
        {"first fragment", ipv4(17, udpTo(67), 0x2000), true},
        {"later fragment", ipv4(17, udpTo(67), 0x2001), false},
        {"igmp", ipv4(2, Frame(8, 0)), true},
        {"tcp", ipv4(6, Frame(20, 0)), false},
        {"ipv6", ethernet(0x86dd) + Frame(40, 0), false},
        {"no EtherType", Frame(13, 0), false},
        {"arp cut before operation", cut(arp(0x0800, 2), 21), false},
        {"udp cut before port", cut(ipv4(17, udpTo(67)), 36), false},
    };
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, pair), 0);
    UniqueFd receiver(pair[0]), sender(pair[1]);
    const sock_fprog program{kSnifferFilter.size(),
                             const_cast<sock_filter *>(kSnifferFilter.data())};
    ASSERT_EQ(setsockopt(receiver.get(), SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program),
              0);
    for (const FilterCase &c : cases) {
        ASSERT_EQ(send(sender.get(), c.frame.data(), c.frame.size(), 0), ssize_t(c.frame.size()));
        uint8_t received[128];
        const ssize_t length = recv(receiver.get(), received, sizeof received, MSG_DONTWAIT);
        EXPECT_EQ(length == ssize_t(c.frame.size()), c.passes) << c.name;
    }
}

// In the child: the bridge br0 with a veth port of each name, all up, and the
// kernel's upper and lower links copied into the fake sysfs that the sniffer reads.
bool makeBridge(std::initializer_list<std::string> ports) {
    std::string command = "ip link add br0 type bridge && ip link set br0 up";
    int peer = 0;
    for (const std::string &port : ports)
        command += " && ip link add " + port + " type veth peer name p" + std::to_string(peer++) +
                   " && ip link set " + port + " master br0 && ip link set " + port + " up";
    if (std::system(command.c_str()) != 0) return false;
    for (const auto &link : std::filesystem::directory_iterator("/sys/class/net"))
        for (const auto &entry : std::filesystem::directory_iterator(link.path())) {
            const std::string name = entry.path().filename();
            if (name.starts_with("upper_") || name.starts_with("lower_"))
                fake::state().kernelFiles[entry.path()] = "";
        }
    return true;
}

template <typename F>
std::string captured(F &&action) {
    ::testing::internal::CaptureStdout();
    action();
    return ::testing::internal::GetCapturedStdout();
}

std::string monitorDump() {
    return captured([] { dump_monitor_intf(); });
}

std::string dumpLine(const char *name, const char *master) {
    const sd_intf *record = find_monitor_intf(name);
    return "    IF " + std::string(name) + "(" + std::to_string(if_nametoindex(name)) + ") SOCK " +
           std::to_string(record ? record->sock : -2) + " MASTER " + master + "\n";
}

// Bounded wait for the sniffer thread to get somewhere; false if it never does.
template <typename F>
bool eventually(F &&condition) {
    for (int tries = 0; tries < 1000; ++tries) {
        if (condition()) return true;
        usleep(10000);
    }
    return false;
}

bool threadNamedSnifferExists() {
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream comm(task.path() / "comm");
        std::string name;
        if (std::getline(comm, name) && name == "Sniffer") return true;
    }
    return false;
}

// Whether the sniffer's link listener is bound: the last descriptor its set-up opens.
bool linkListenerBound() {
    std::ifstream table("/proc/net/netlink");
    std::string line;
    std::getline(table, line);  // the column names
    while (std::getline(table, line)) {
        char socketId[32];
        int protocol = -1;
        unsigned long port = 0;
        if (std::sscanf(line.c_str(), "%31s %d %lu", socketId, &protocol, &port) == 3 &&
            protocol == NETLINK_ROUTE && port == static_cast<unsigned long>(getpid()))
            return true;
    }
    return false;
}

int listInChild() {
    if (!makeBridge({"nas0_0", "eth0.2"})) return kNetnsNoSetup;
    sd_intf *bridge = add_monitor_intf("br0", nullptr);
    NETNS_CHECK(bridge && bridge->sock >= 0 && !bridge->master);
    NETNS_CHECK(add_lower_monitor_intf("br0", "nas0") == 1);
    const sd_intf *port = find_monitor_intf("nas0_0");
    NETNS_CHECK(port && port->master == bridge && !find_monitor_intf("eth0.2"));
    const std::string listed = monitorDump();
    NETNS_CHECK(listed == "### Monitor Interface:\n" + dumpLine("br0", "NULL") +
                              dumpLine("nas0_0", "br0") + "\n");

    struct Refusal {
        const char *ifname, *master, *message;
        unsigned level;
    } const refusals[] = {
        {"br0", nullptr, "Interface(br0) already monitor\n", kSnifferNotice},
        {"eth0.2", "br1", "Cannot found master(br1)\n", kSnifferNotice},
        {"lo", "br0", "The interface(lo) isnt slave of the master(br0)\n", kSnifferNotice},
        {"nosuch0", nullptr, "Cannot get interface(nosuch0)\n", kSnifferError},
    };
    for (unsigned level : {kSnifferError, kSnifferNotice}) {
        setSnifferMonitorLogLevel(level);
        for (const Refusal &r : refusals) {
            bool refused = false;
            const std::string out =
                captured([&] { refused = !add_monitor_intf(r.ifname, r.master); });
            NETNS_CHECK(refused);
            if (r.level > level)
                NETNS_CHECK(out.empty());
            else
                NETNS_CHECK(out.starts_with("[Sniffer][__add_monitor_intf:") &&
                            out.ends_with(r.message));
        }
    }
    NETNS_CHECK(monitorDump() == listed);

    const int sockets[] = {bridge->sock, port->sock};
    del_monitor_intf(bridge);  // its port goes with it
    NETNS_CHECK(monitorDump() == "### Monitor Interface:\n\n");
    for (int sock : sockets) NETNS_CHECK(fcntl(sock, F_GETFD) == -1 && errno == EBADF);
    return kNetnsPassed;
}

int startAndStopInChild() {
    if (!makeBridge({"nas0_0", "eth0.2"})) return kNetnsNoSetup;
    setSnifferMonitorLogLevel(kSnifferNotice);
    ::testing::internal::CaptureStdout();
    const bool nullListStartsNothing = startSnifferMonitor(nullptr) == 0 && !snifferRunning();
    // The 17-character element is skipped, the 16-character one tried; eth0.2 comes last.
    const int started = startSnifferMonitor("br0,br0,abcdefghijklmnopq,abcdefghijklmnop,eth0.2");
    const int again = startSnifferMonitor("br0");
    const bool setUp = eventually([] { return find_monitor_intf("eth0.2") != nullptr; });
    const bool named = threadNamedSnifferExists();
    stopSnifferMonitor();
    const std::string out = ::testing::internal::GetCapturedStdout();
    NETNS_CHECK(nullListStartsNothing && started == 0 && again == -1 && setUp && named);
    NETNS_CHECK(!snifferRunning() && !threadNamedSnifferExists());
    NETNS_CHECK(out.find("Sniffer already running !\n") != std::string::npos);
    const std::string duplicate = "Interface(br0) already monitor\n";
    const size_t first = out.find(duplicate);
    NETNS_CHECK(first != std::string::npos && out.find(duplicate, first + 1) == std::string::npos);
    NETNS_CHECK(out.find("Cannot get interface(abcdefghijklmnop)\n") != std::string::npos);
    NETNS_CHECK(out.find("abcdefghijklmnopq") == std::string::npos);
    // A cancelled sniffer leaves its list as it was.
    const sd_intf *port = find_monitor_intf("nas0_0");
    NETNS_CHECK(port && port->master == find_monitor_intf("br0") &&
                !find_monitor_intf("eth0.2")->master);
    snifferReset();
    NETNS_CHECK(!find_monitor_intf("br0"));
    return kNetnsPassed;
}

// A wait that fails for good ends the thread its normal way, which empties the list and
// the neighbour cache; the next start reaps the ended thread.
int normalEndInChild() {
    if (!makeBridge({"nas0_0"})) return kNetnsNoSetup;
    setSnifferMonitorLogLevel(0);  // the closed socket's failed receive is expected
    const uint8_t mac[6] = {0x02, 0, 0, 0, 0, 0x07};
    const uint32_t ip = htonl(0x0a000007);
    update_neighbor_host(mac, &ip, nullptr);
    NETNS_CHECK(getSnifferNeighborHost(mac, nullptr, nullptr, 0) == 1);
    NETNS_CHECK(startSnifferMonitor("br0") == 0);
    NETNS_CHECK(eventually(linkListenerBound));                  // set-up has opened all it opens
    close(find_monitor_intf("nas0_0")->sock);                    // the next wait fails with EBADF
    (void)std::system("ip link add x0 type veth peer name x1");  // ends the current wait
    NETNS_CHECK(eventually([] { return !snifferRunning(); }));
    NETNS_CHECK(!find_monitor_intf("br0") && !getSnifferNeighborHost(mac, nullptr, nullptr, 0));
    NETNS_CHECK(startSnifferMonitor("br0") == 0);
    NETNS_CHECK(eventually([] { return find_monitor_intf("nas0_0") != nullptr; }));
    snifferReset();
    NETNS_CHECK(!snifferRunning());
    return kNetnsPassed;
}

class SnifferMonitorTest : public HostrixTest {};

TEST_F(SnifferMonitorTest, ListKeepsOneRecordPerNameAndDropsPortsWithTheirBridge) {
    expectPassesInPrivateNetns(listInChild);
}

TEST_F(SnifferMonitorTest, ThreadTakesItsListAndStopsForGood) {
    expectPassesInPrivateNetns(startAndStopInChild);
}

TEST_F(SnifferMonitorTest, FailedWaitEndsTheThreadAndReleasesEverything) {
    expectPassesInPrivateNetns(normalEndInChild);
}

}  // namespace
