// Traffic counters on nftables: the listing parser on crafted JSON, then the counter
// operations against real nft in a private network namespace. Also the port ids of the
// backend's netlink sockets, which must leave the process id to the sniffer.
#include <arpa/inet.h>
#include <linux/netlink.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <array>
#include <cstdlib>
#include <cstring>
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

struct ListingCase {
    const char *what;
    std::string json;
    std::vector<NftCounter> expected;
};

TEST(NftListing, CraftedListings) {
    const ListingCase cases[] = {
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
    for (const ListingCase &c : cases)
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

bool nftWorks(const char *command) {
    return std::system((std::string("nft ") + command + " >/dev/null 2>&1").c_str()) == 0;
}

bool tablePresent() {
    return nftWorks("list table bridge hostrix");
}

// A host entry begins with its MAC.
struct Entry {
    Entry(const Mac &mac) { std::memcpy(bytes, mac.data(), mac.size()); }
    uint8_t bytes[16] = {};
};

// The plain set's pair for ENTRY in one sampling pass; -1 in [0] when not answered.
std::array<int64_t, 2> sample(Entry &entry) {
    uint64_t pair[2] = {};
    zvt_host_police_control_mib_counter_get_begin();
    int answer = zvt_host_police_control_mib_counter_get(entry.bytes, pair);
    int fc = zvt_fc_host_police_control_mib_counter_get(entry.bytes, pair);
    zvt_host_police_control_mib_counter_get_end();
    if (answer != 0 || fc != -1) return {-1, -1};
    return {static_cast<int64_t>(pair[0]), static_cast<int64_t>(pair[1])};
}

// One UDP datagram from the gateway through br0 to host A's address.
bool sendToHostA() {
    if (std::system("ip addr add 192.168.77.1/24 dev br0 && "
                    "ip neigh add 192.168.77.2 lladdr 0a:77:00:00:00:01 dev br0") != 0)
        return false;
    UniqueFd sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(9);
    inet_pton(AF_INET, "192.168.77.2", &to.sin_addr);
    const char payload[100] = {};
    return sendto(sock.get(), payload, sizeof payload, 0, reinterpret_cast<sockaddr *>(&to),
                  sizeof to) == static_cast<ssize_t>(sizeof payload);
}

int checkCountersOnRealNft() {
    Entry hostA(kHostA);
    NETNS_CHECK(zvt_fc_host_police_control_mib_counter_init() == 0 && tablePresent());
    NETNS_CHECK(sample(hostA)[0] == -1);  // not registered
    NETNS_CHECK(zvt_update_lan_hpc_for_mib(hostA.bytes, 1) == 0);
    NETNS_CHECK(zvt_fc_update_lan_hpc_for_mib(hostA.bytes, 1) == 0);
    NETNS_CHECK((sample(hostA) == std::array<int64_t, 2>{0, 0}));
    if (!netnsMakeBridge()) return kNetnsNoSetup;
    NETNS_CHECK(sendToHostA());
    const auto counted = sample(hostA);
    NETNS_CHECK(counted[0] == 0 && counted[1] >= 100);
    NETNS_CHECK(zvt_update_lan_hpc_for_mib(hostA.bytes, 0) == 0 && sample(hostA)[0] == -1);
    NETNS_CHECK(zvt_update_lan_hpc_for_mib(hostA.bytes, 0) == 0);  // already gone: no error
    NETNS_CHECK(zvt_update_lan_hpc_for_mib(hostA.bytes, 1) == 0 && sample(hostA)[0] == 0);
    NETNS_CHECK(zvt_fc_host_police_control_mib_counter_init() == 0 && tablePresent());
    NETNS_CHECK(sample(hostA)[0] == -1);  // a new table has no elements
    return kNetnsPassed;
}

// Nothing is made and nothing answers.
int checkCountersOff() {
    Entry hostA(kHostA);
    NETNS_CHECK(zvt_fc_host_police_control_mib_counter_init() == 0 && !tablePresent());
    NETNS_CHECK(zvt_update_lan_hpc_for_mib(hostA.bytes, 1) == -1 && sample(hostA)[0] == -1);
    return kNetnsPassed;
}

// A process that made the table and exits takes it away.
int checkTableRemovedAtExit() {
    const pid_t pid = fork();
    if (pid == 0)
        std::exit(zvt_fc_host_police_control_mib_counter_init() == 0 && tablePresent() ? 0 : 1);
    int status = -1;
    NETNS_CHECK(pid > 0 && waitpid(pid, &status, 0) == pid);
    NETNS_CHECK(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    NETNS_CHECK(!tablePresent());
    return kNetnsPassed;
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
    expectPassesInPrivateNetns(checkCountersOnRealNft);
}

TEST_F(NftCountersKernel, OffInTheConfiguration) {
    writeConfig("counters = off\n");
    expectPassesInPrivateNetns(checkCountersOff);
}

TEST_F(NftCountersKernel, TableRemovedAtExit) {
    expectPassesInPrivateNetns(checkTableRemovedAtExit);
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
    Entry hostA(kHostA);
    EXPECT_EQ(sample(hostA)[0], -1);
}

uint32_t portIdOf(const UniqueFd &sock) {
    sockaddr_nl local{};
    socklen_t size = sizeof local;
    return getsockname(sock.get(), reinterpret_cast<sockaddr *>(&local), &size) == 0 ? local.nl_pid
                                                                                     : 0;
}

// An unbound socket gets its port id at its first send.
bool sendNoop(const UniqueFd &sock) {
    const nlmsghdr noop{NLMSG_HDRLEN, NLMSG_NOOP, NLM_F_REQUEST, 1, 0};
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    return sendto(sock.get(), &noop, sizeof noop, 0, reinterpret_cast<sockaddr *>(&kernel),
                  sizeof kernel) == static_cast<ssize_t>(sizeof noop);
}

// The sniffer binds to the process id whenever it starts; ours must never hold it, and
// a second one of ours still gets a socket.
TEST(KernelNetlinkSocket, LeavesTheProcessIdFree) {
    const UniqueFd ours = openKernelNetlinkSocket(NETLINK_ROUTE);
    ASSERT_TRUE(ours.valid() && sendNoop(ours));
    EXPECT_NE(portIdOf(ours), static_cast<uint32_t>(getpid()));
    UniqueFd sniffer(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    sockaddr_nl local{};
    local.nl_family = AF_NETLINK;
    local.nl_pid = static_cast<uint32_t>(getpid());
    EXPECT_EQ(bind(sniffer.get(), reinterpret_cast<sockaddr *>(&local), sizeof local), 0);
    const UniqueFd second = openKernelNetlinkSocket(NETLINK_ROUTE);
    ASSERT_TRUE(second.valid());
    EXPECT_NE(portIdOf(second), 0u);
    EXPECT_NE(portIdOf(second), portIdOf(ours));
}

}  // namespace
