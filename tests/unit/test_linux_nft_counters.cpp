// Traffic counters on nftables: the listing parser on crafted JSON, then the counter
// operations against real nft in a private network namespace. Also the port ids of the
// backend's netlink sockets, which must leave the process id to the sniffer.
#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "linux_test_support.h"
#include "netns_child.h"
#include "platform/linux/netlink_socket.h"
#include "platform/linux/nft_counters.h"
#include "platform/zvt.h"

namespace {

using Mac = std::array<uint8_t, kNftMacBytes>;
constexpr Mac kHostA{0x0a, 0x77, 0, 0, 0, 0x01};
constexpr Mac kHostB{0x0a, 0x77, 0, 0, 0, 0x02};

// One set element as nft writes it; BYTES is the JSON text of the count.
std::string elem(const std::string &mac, const std::string &bytes) {
    return R"({"elem": {"val": ")" + mac + R"(", "counter": {"packets": 1, "bytes": )" + bytes +
           "}}}";
}

std::string set(const std::string &name, const std::vector<std::string> &elems) {
    std::string list;
    for (const std::string &e : elems) list += (list.empty() ? "" : ", ") + e;
    return R"({"set": {"family": "bridge", "name": ")" + name +
           R"(", "table": "hostrix", "type": "ether_addr", "handle": 4, "elem": [)" + list +
           R"(], "stmt": [{"counter": null}]}})";
}

std::string listing(const std::vector<std::string> &objects) {
    std::string json = R"({"nftables": [{"metainfo": {"version": "1.0.6"}}, )"
                       R"({"table": {"family": "bridge", "name": "hostrix", "handle": 1}})";
    for (const std::string &object : objects) json += ", " + object;
    return json + R"(, {"chain": {"family": "bridge", "table": "hostrix", "name": "tx"}}]})";
}

NftCounter counter(const Mac &mac, std::optional<uint64_t> tx, std::optional<uint64_t> rx) {
    return {mac, tx.value_or(0), rx.value_or(0), tx.has_value(), rx.has_value()};
}

const std::string kTwoHosts =
    listing({set("tx", {elem("0a:77:00:00:00:02", "300"), elem("0a:77:00:00:00:01", "100")}),
             set("rx", {elem("0a:77:00:00:00:01", "200"), elem("0a:77:00:00:00:02", "400")})});

TEST(NftListing, CraftedListings) {
    const struct {
        const char *what;
        std::string json;
        std::vector<NftCounter> expected;
    } cases[] = {
        {"two hosts in both sets, sorted by MAC",
         kTwoHosts,
         {counter(kHostA, 100, 200), counter(kHostB, 300, 400)}},
        {"a host in tx only",
         listing({set("tx", {elem("0a:77:00:00:00:01", "5")}), set("rx", {})}),
         {counter(kHostA, 5, {})}},
        {"bad MAC texts skipped",
         listing({set("tx", {elem("0a:77:00:00:00:zz", "1"), elem("00:00:00:00:00:00", "1"),
                             elem("0a:77:00:00:00:01:02", "1"), elem("0a:77:00:00:00:01", "7")})}),
         {counter(kHostA, 7, {})}},
        {"an element without bytes takes none of the next one's",
         listing({set("rx", {R"({"elem": {"val": "0a:77:00:00:00:02", "counter": {"packets": 3}}})",
                             R"("0a:77:00:00:00:02")", elem("0a:77:00:00:00:01", "9")})}),
         {counter(kHostA, {}, 9)}},
        {"other sets and names elsewhere ignored",
         listing(
             {set("tx2", {elem("0a:77:00:00:00:01", "1")}),
              R"({"chain": {"name": "tx", "elem": [)" + elem("0a:77:00:00:00:01", "1") + "]}}"}),
         {}},
        {"counts beyond 64 bits, negative or fractional rejected",
         listing({set("tx", {elem("0a:77:00:00:00:01", "18446744073709551616"),
                             elem("0a:77:00:00:00:01", "-1"), elem("0a:77:00:00:00:01", "1.5"),
                             elem("0a:77:00:00:00:02", "18446744073709551615")})}),
         {counter(kHostB, UINT64_MAX, {})}},
        {"escaped quotes do not end strings",
         listing({set(R"(t\"x)", {elem("0a:77:00:00:00:01", "1")}),
                  R"({"set": {"name": "rx", "comment": "\"val\": \"0a:77:00:00:00:02\", )"
                  R"(\"bytes\": 5", "elem": [)" +
                      elem("0a:77:00:00:00:01", "2") + "]}}"}),
         {counter(kHostA, {}, 2)}},
        {"the name must come before the elements",
         R"({"set": {"elem": [)" + elem("0a:77:00:00:00:01", "1") + R"(], "name": "tx"}})",
         {}},
    };
    for (const auto &c : cases)
        EXPECT_EQ(parseNftCounterListing(c.json), c.expected) << c.what;
}

// Every prefix gives a subset of the whole listing's counts, never a wrong one.
TEST(NftListing, CutShortAnywhere) {
    const std::vector<NftCounter> whole = parseNftCounterListing(kTwoHosts);
    for (size_t cut = 0; cut < kTwoHosts.size(); ++cut) {
        for (const NftCounter &part : parseNftCounterListing(kTwoHosts.substr(0, cut))) {
            const NftCounter &full = whole[part.mac == kHostA ? 0 : 1];
            EXPECT_TRUE(part.mac == full.mac && (!part.inTx || part.txBytes == full.txBytes) &&
                        (!part.inRx || part.rxBytes == full.rxBytes))
                << "cut at " << cut;
        }
    }
}

TEST(NftListing, ElementsCapped) {
    std::vector<std::string> elems;
    for (unsigned i = 0; i < kMaxNftElements + 10; ++i) {
        char mac[18];
        std::snprintf(mac, sizeof mac, "0a:77:00:00:%02x:%02x", i >> 8, i & 0xff);
        elems.push_back(elem(mac, "1"));
    }
    EXPECT_EQ(parseNftCounterListing(listing({set("tx", elems)})).size(), kMaxNftElements);
    EXPECT_TRUE(parseNftCounterListing(std::string(100'000, '[') + kTwoHosts).empty());
}

// --- against real nft, in the child ---

bool tablePresent() {
    return std::system("nft list table bridge hostrix >/dev/null 2>&1") == 0;
}

// The plain set's pair for ENTRY in one sampling pass; -1 in [0] when not answered.
std::array<int64_t, 2> sample(Mac entry = kHostA) {
    uint64_t pair[2] = {};
    zvt_host_police_control_mib_counter_get_begin();
    int answer = zvt_host_police_control_mib_counter_get(entry.data(), pair);
    int fc = zvt_fc_host_police_control_mib_counter_get(entry.data(), pair);
    zvt_host_police_control_mib_counter_get_end();
    if (answer != 0 || fc != -1) return {-1, -1};
    return {static_cast<int64_t>(pair[0]), static_cast<int64_t>(pair[1])};
}

// One UDP datagram from the gateway through br0 to host A's address.
bool sendToHostA() {
    return std::system("ip addr add 192.168.77.1/24 dev br0 && "
                       "ip neigh add 192.168.77.2 lladdr 0a:77:00:00:00:01 dev br0 && "
                       "bash -c 'echo to-host-a >/dev/udp/192.168.77.2/9'") == 0;
}

class NftCountersKernel : public HostrixRootTest {
   protected:
    void SetUp() override {
        HostrixRootTest::SetUp();
        if (std::system("command -v nft >/dev/null 2>&1") != 0)
            GTEST_SKIP() << "nft is not installed (Debian package nftables)";
    }
};

TEST_F(NftCountersKernel, RegisterCountUnregisterReplace) {
    expectPassesInPrivateNetns([] {
        Mac hostA = kHostA;
        NETNS_CHECK(zvt_fc_host_police_control_mib_counter_init() == 0 && tablePresent());
        NETNS_CHECK(sample()[0] == -1);  // not registered
        NETNS_CHECK(zvt_update_lan_hpc_for_mib(hostA.data(), 1) == 0 && sample()[0] == 0);
        if (!netnsMakeBridge()) return kNetnsNoSetup;
        NETNS_CHECK(sendToHostA());
        const auto counted = sample();
        NETNS_CHECK(counted[0] == 0 && counted[1] > 0);
        NETNS_CHECK(zvt_update_lan_hpc_for_mib(hostA.data(), 0) == 0 && sample()[0] == -1);
        NETNS_CHECK(zvt_update_lan_hpc_for_mib(hostA.data(), 0) == 0);  // already gone: no error
        NETNS_CHECK(zvt_update_lan_hpc_for_mib(hostA.data(), 1) == 0 && sample()[0] == 0);
        NETNS_CHECK(zvt_fc_host_police_control_mib_counter_init() == 0 && sample()[0] == -1);
        return kNetnsPassed;
    });
}

// Nothing is made and nothing answers.
TEST_F(NftCountersKernel, OffInTheConfiguration) {
    writeConfig("counters = off\n");
    expectPassesInPrivateNetns([] {
        Mac hostA = kHostA;
        NETNS_CHECK(zvt_fc_host_police_control_mib_counter_init() == 0 && !tablePresent());
        NETNS_CHECK(zvt_update_lan_hpc_for_mib(hostA.data(), 1) == -1 && sample()[0] == -1);
        return kNetnsPassed;
    });
}

// A process that made the table and exits takes it away.
TEST_F(NftCountersKernel, TableRemovedAtExit) {
    expectPassesInPrivateNetns([] {
        const pid_t pid = fork();
        if (pid == 0)
            std::exit(zvt_fc_host_police_control_mib_counter_init() == 0 && tablePresent() ? 0 : 1);
        int status = -1;
        NETNS_CHECK(pid > 0 && waitpid(pid, &status, 0) == pid && status == 0 && !tablePresent());
        return kNetnsPassed;
    });
}

// Without nft the daemon says so once and runs on without counters.
class NftCountersMissing : public HostrixRootTest {};

TEST_F(NftCountersMissing, ReportedAndNotAvailable) {
    const std::string path = std::getenv("PATH") ? std::getenv("PATH") : "";
    setenv("PATH", root_.path.c_str(), 1);
    StderrCapture capture;
    const int result = zvt_fc_host_police_control_mib_counter_init();
    const std::string said = capture.text();
    setenv("PATH", path.c_str(), 1);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(said,
              "hostrix: traffic counters are not available: nft was not found (install nftables, "
              "or set counters = off in mib.conf)\n");
    EXPECT_EQ(sample()[0], -1);
}

uint32_t portIdOf(const UniqueFd &sock) {
    sockaddr_nl local{};
    socklen_t size = sizeof local;
    return getsockname(sock.get(), reinterpret_cast<sockaddr *>(&local), &size) == 0 ? local.nl_pid
                                                                                     : 0;
}

// The sniffer binds to the process id whenever it starts; ours must never hold it, and
// one opened while the sniffer's is bound still gets a port of its own.
TEST(KernelNetlinkSocket, LeavesTheProcessIdFree) {
    const uint32_t pid = static_cast<uint32_t>(getpid());
    const UniqueFd ours = openKernelNetlinkSocket(NETLINK_ROUTE);
    UniqueFd sniffer(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    const sockaddr_nl local{.nl_family = AF_NETLINK, .nl_pad = 0, .nl_pid = pid, .nl_groups = 0};
    EXPECT_EQ(bind(sniffer.get(), reinterpret_cast<const sockaddr *>(&local), sizeof local), 0);
    const UniqueFd second = openKernelNetlinkSocket(NETLINK_ROUTE);
    for (const UniqueFd *sock : {&ours, &second})
        EXPECT_TRUE(sock->valid() && portIdOf(*sock) != 0 && portIdOf(*sock) != pid);
    EXPECT_NE(portIdOf(second), portIdOf(ours));
}

}  // namespace
