// Traffic counters on nftables: the set-element dump decoder on crafted and recorded
// kernel bytes, the registration queue, then the counter operations against the real
// kernel in a private network namespace (checked with the nft program). Also the port
// ids of the backend's netlink sockets, which must leave the process id to the sniffer.
#include <endian.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/stat.h>
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

constexpr NftMac kHostA{0x0a, 0x77, 0, 0, 0, 0x01};
constexpr NftMac kHostB{0x0a, 0x77, 0, 0, 0, 0x02};
constexpr uint32_t kSeq = 7;

// --- dumps made with libmnl, attribute by attribute ---

struct Elem {
    std::vector<uint8_t> key;
    std::optional<uint64_t> bytes;  // none: no counter expression
    const char *expr = "counter";   // nullptr: an expression without a name
    uint16_t extraType = 0;         // an element attribute of this type besides
    bool shortCount = false;        // the byte count in 4 bytes instead of 8
};

Elem elem(const NftMac &mac, uint64_t bytes) {
    return {{mac.begin(), mac.end()}, bytes};
}

class Dump {
   public:
    Dump &set(const char *table, const char *name, const std::vector<Elem> &elems,
              uint32_t seq = kSeq) {
        nlmsghdr *header = begin((NFNL_SUBSYS_NFTABLES << 8) | NFT_MSG_NEWSETELEM, seq);
        auto *family =
            static_cast<nfgenmsg *>(mnl_nlmsg_put_extra_header(header, sizeof(nfgenmsg)));
        family->nfgen_family = NFPROTO_BRIDGE;
        mnl_attr_put_strz(header, NFTA_SET_ELEM_LIST_TABLE, table);
        mnl_attr_put_strz(header, NFTA_SET_ELEM_LIST_SET, name);
        nlattr *list = mnl_attr_nest_start(header, NFTA_SET_ELEM_LIST_ELEMENTS);
        for (const Elem &e : elems) putElem(header, e);
        mnl_attr_nest_end(header, list);
        return end(header);
    }
    Dump &done(uint32_t seq = kSeq) { return end(begin(NLMSG_DONE, seq, sizeof(int32_t))); }
    Dump &error(int error, uint32_t seq = kSeq) {
        nlmsghdr *header = begin(NLMSG_ERROR, seq, sizeof(nlmsgerr));
        static_cast<nlmsgerr *>(mnl_nlmsg_get_payload(header))->error = error;
        return end(header);
    }
    std::vector<uint8_t> bytes() const {
        const auto *data = reinterpret_cast<const uint8_t *>(words_.data());
        return {data, data + used_};
    }

   private:
    static constexpr size_t kRoom = 65536;

    nlmsghdr *begin(uint16_t type, uint32_t seq, size_t body = 0) {
        words_.resize((used_ + kRoom) / sizeof(uint32_t));
        nlmsghdr *header = mnl_nlmsg_put_header(reinterpret_cast<char *>(words_.data()) + used_);
        header->nlmsg_type = type;
        header->nlmsg_seq = seq;
        if (body) (void)mnl_nlmsg_put_extra_header(header, body);
        return header;
    }
    Dump &end(const nlmsghdr *header) {
        used_ += MNL_ALIGN(header->nlmsg_len);
        return *this;
    }
    static void putElem(nlmsghdr *header, const Elem &e) {
        nlattr *item = mnl_attr_nest_start(header, NFTA_LIST_ELEM);
        nlattr *key = mnl_attr_nest_start(header, NFTA_SET_ELEM_KEY);
        mnl_attr_put(header, NFTA_DATA_VALUE, e.key.size(), e.key.data());
        mnl_attr_nest_end(header, key);
        if (e.bytes) {
            nlattr *expr = mnl_attr_nest_start(header, NFTA_SET_ELEM_EXPR);
            if (e.expr) mnl_attr_put_strz(header, NFTA_EXPR_NAME, e.expr);
            nlattr *data = mnl_attr_nest_start(header, NFTA_EXPR_DATA);
            if (e.shortCount)
                mnl_attr_put_u32(header, NFTA_COUNTER_BYTES, 1);
            else
                mnl_attr_put_u64(header, NFTA_COUNTER_BYTES, htobe64(*e.bytes));
            mnl_attr_put_u64(header, NFTA_COUNTER_PACKETS, htobe64(1));
            mnl_attr_nest_end(header, data);
            mnl_attr_nest_end(header, expr);
        }
        if (e.extraType) mnl_attr_put_u32(header, e.extraType, 0);
        mnl_attr_nest_end(header, item);
    }

    std::vector<uint32_t> words_;  // keeps the headers aligned
    size_t used_ = 0;
};

// Set rx as the kernel dumped it after one datagram to host A: B with 0 bytes, A with
// 31, then an empty message and the end of the dump (sequence 0x4f).
std::vector<uint8_t> recordedRxDump() {
    const std::string hex =
        "ac0000000c0a02004f000000b2650080070000030c000100686f73747269780007000200727800008400"
        "030040000100100001000a0001000a770000000200002c0007000c000100636f756e746572001c0002"
        "000c00010000000000000000000c000200000000000000000040000100100001000a0001000a770000"
        "000100002c0007000c000100636f756e746572001c0002000c000100000000000000001f0c00020000"
        "000000000000012c0000000c0a02004f000000b2650080070000030c000100686f7374726978000700"
        "0200727800000400030014000000030002004f000000b265008000000000";
    std::vector<uint8_t> bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        bytes.push_back(static_cast<uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    return bytes;
}
constexpr uint32_t kRecordedSeq = 0x4f;

struct Decoded {
    RouteDumpStatus status;
    std::vector<NftCounter> counters;
};

Decoded decode(std::span<const uint8_t> bytes, uint32_t seq = kSeq) {
    std::vector<NftSetElement> elements;
    const RouteDumpStatus status = decodeNftElementDump(bytes, seq, elements);
    return {status, mergeNftElements(std::move(elements))};
}

NftCounter counter(const NftMac &mac, std::optional<uint64_t> tx, std::optional<uint64_t> rx) {
    return {mac, tx.value_or(0), rx.value_or(0), tx.has_value(), rx.has_value()};
}

TEST(NftDump, CraftedDatagrams) {
    const std::vector<uint8_t> shortKey{0x0a, 0x77, 0, 0, 0};
    const struct {
        const char *what;
        std::vector<uint8_t> bytes;
        RouteDumpStatus status;
        std::vector<NftCounter> expected;
    } cases[] = {
        {"both sets, sorted by MAC, counts in network order",
         Dump()
             .set("hostrix", "tx", {elem(kHostB, 300), elem(kHostA, UINT64_MAX)})
             .set("hostrix", "rx", {elem(kHostA, 200), elem(kHostB, 0x0102030405060708)})
             .done()
             .bytes(),
         RouteDumpStatus::Done,
         {counter(kHostA, UINT64_MAX, 200), counter(kHostB, 300, 0x0102030405060708)}},
        {"the dump goes on in the next datagram",
         Dump().set("hostrix", "tx", {elem(kHostA, 5)}).bytes(),
         RouteDumpStatus::More,
         {counter(kHostA, 5, {})}},
        {"elements without a MAC key or a counter are left out",
         Dump()
             .set("hostrix", "rx",
                  {{shortKey, 1}, elem(kHostB, 2), {{kHostA.begin(), kHostA.end()}, {}}})
             .set("hostrix", "tx", {{{kHostA.begin(), kHostA.end()}, 3, "limit"}})
             .bytes(),
         RouteDumpStatus::More,
         {counter(kHostB, {}, 2)}},
        {"other tables, sets and requests are ignored",
         Dump()
             .set("filter", "tx", {elem(kHostA, 1)})
             .set("hostrix", "tx2", {elem(kHostA, 1)})
             .set("hostrix", "tx", {elem(kHostA, 1)}, kSeq + 1)
             .done(kSeq + 1)
             .set("hostrix", "rx", {elem(kHostA, 9)})
             .bytes(),
         RouteDumpStatus::More,
         {counter(kHostA, {}, 9)}},
        {"a message with a nameless expression is left out whole",
         Dump()
             .set("hostrix", "tx", {elem(kHostA, 1), {{kHostB.begin(), kHostB.end()}, 2, nullptr}})
             .set("hostrix", "rx", {elem(kHostB, 3)})
             .bytes(),
         RouteDumpStatus::More,
         {counter(kHostB, {}, 3)}},
        // What libnftnl would exit on, or write past its stack table for.
        {"a message with attributes of a wrong size or an unknown type is left out whole",
         Dump()
             .set("hostrix", "tx",
                  {elem(kHostA, 1), {{kHostB.begin(), kHostB.end()}, 2, "counter", 0, true}})
             .set("hostrix", "tx",
                  {elem(kHostA, 1), {{kHostB.begin(), kHostB.end()}, 2, "counter", 16}})
             .set("hostrix", "rx", {elem(kHostB, 3)})
             .bytes(),
         RouteDumpStatus::More,
         {counter(kHostB, {}, 3)}},
        {"a refusal fails the dump", Dump().error(-ENOENT).bytes(), RouteDumpStatus::Failed, {}},
        {"of a MAC listed twice the later wins",
         Dump()
             .set("hostrix", "tx", {elem(kHostA, 1)})
             .set("hostrix", "tx", {elem(kHostA, 2)})
             .bytes(),
         RouteDumpStatus::More,
         {counter(kHostA, 2, {})}},
    };
    for (const auto &c : cases) {
        const Decoded got = decode(c.bytes);
        EXPECT_EQ(got.status, c.status) << c.what;
        EXPECT_EQ(got.counters, c.expected) << c.what;
    }
}

TEST(NftDump, RecordedFromTheKernel) {
    const std::vector<uint8_t> bytes = recordedRxDump();
    const std::vector<NftCounter> expected{counter(kHostA, {}, 31), counter(kHostB, {}, 0)};
    const Decoded got = decode(bytes, kRecordedSeq);
    EXPECT_EQ(got.status, RouteDumpStatus::Done);
    EXPECT_EQ(got.counters, expected);
    // Bytes at an odd address decode alike.
    std::vector<uint8_t> shifted(bytes.size() + 1);
    std::copy(bytes.begin(), bytes.end(), shifted.begin() + 1);
    EXPECT_EQ(decode(std::span(shifted).subspan(1), kRecordedSeq).counters, expected);
}

// A datagram cut anywhere, or with a length pointing past its end, gives what was
// whole before the cut and never a wrong count or a finished dump.
TEST(NftDump, CutAtEveryByte) {
    const std::vector<uint8_t> whole = recordedRxDump();
    const std::vector<NftCounter> all = decode(whole, kRecordedSeq).counters;
    for (size_t cut = 0; cut < whole.size(); ++cut) {
        std::vector<uint8_t> part(whole.begin(), whole.begin() + cut);
        const Decoded got = decode(part, kRecordedSeq);
        EXPECT_NE(got.status, RouteDumpStatus::Done) << "cut at " << cut;
        for (const NftCounter &c : got.counters)
            EXPECT_TRUE(std::find(all.begin(), all.end(), c) != all.end()) << "cut at " << cut;
    }
    std::vector<uint8_t> lying = whole;
    lying[3] = 0x80;  // the first message claims 2 GiB more than there is
    EXPECT_EQ(decode(lying, kRecordedSeq).status, RouteDumpStatus::Failed);
    EXPECT_TRUE(decode(lying, kRecordedSeq).counters.empty());
}

TEST(NftDump, ElementsCapped) {
    Dump dump;
    constexpr unsigned kPerMessage = 500;  // keeps each message's list under 64 KiB
    for (unsigned first = 0; first < kMaxNftElements + 10; first += kPerMessage) {
        std::vector<Elem> elems;
        for (unsigned i = first; i < first + kPerMessage; ++i)
            elems.push_back(
                elem({0x0a, 0x77, 0, 0, static_cast<uint8_t>(i >> 8), static_cast<uint8_t>(i)}, 1));
        dump.set("hostrix", "tx", elems);
    }
    std::vector<NftSetElement> elements;
    (void)decodeNftElementDump(dump.bytes(), kSeq, elements);
    EXPECT_EQ(elements.size(), kMaxNftElements);
}

// --- the queue ---

NftMac macOf(unsigned i) {
    return {0x0a, 0x77, 0, 0, static_cast<uint8_t>(i >> 8), static_cast<uint8_t>(i)};
}

// A sender that records each transaction and answers as told.
struct Sender {
    bool accept = true;
    std::vector<std::vector<NftHostOp>> sent;
    NftHostQueue::Send callback() {
        return [this](std::span<const NftHostOp> ops) {
            sent.emplace_back(ops.begin(), ops.end());
            return accept;
        };
    }
};

TEST(NftHostQueue, OneTransactionForManyHostsLastOpWins) {
    NftHostQueue queue;
    Sender sender;
    EXPECT_TRUE(queue.flush(sender.callback()));
    EXPECT_TRUE(sender.sent.empty());  // nothing pending: the kernel is not asked
    std::vector<NftHostOp> expected;
    for (unsigned i = 0; i < 100; ++i) {
        queue.push({macOf(i), true});
        if (i != 3) expected.push_back({macOf(i), true});
    }
    queue.push({macOf(3), false});
    queue.push({macOf(3), true});
    queue.push({macOf(3), false});
    expected.push_back({macOf(3), false});
    EXPECT_TRUE(queue.flush(sender.callback()));
    ASSERT_EQ(sender.sent.size(), 1u);
    EXPECT_EQ(sender.sent[0], expected);
    EXPECT_TRUE(queue.pending().empty());
}

TEST(NftHostQueue, KeptWhenRefusedAndRetried) {
    NftHostQueue queue;
    Sender sender;
    sender.accept = false;
    queue.push({kHostA, true});
    queue.push({kHostB, true});
    EXPECT_FALSE(queue.flush(sender.callback()));
    EXPECT_FALSE(queue.flush(sender.callback()));
    queue.push({kHostA, false});
    sender.accept = true;
    EXPECT_TRUE(queue.flush(sender.callback()));
    const std::vector<NftHostOp> retried{{kHostB, true}, {kHostA, false}};
    ASSERT_EQ(sender.sent.size(), 3u);
    EXPECT_EQ(sender.sent[2], retried);
    EXPECT_TRUE(queue.pending().empty());
}

TEST(NftHostQueue, FullQueueDropsTheOldestAndSaysSoOnce) {
    NftHostQueue queue(3);
    Sender sender;
    std::vector<bool> said;
    for (unsigned i = 0; i < 5; ++i) said.push_back(queue.push({macOf(i), true}));
    EXPECT_EQ(said, (std::vector<bool>{false, false, false, true, false}));
    const std::vector<NftHostOp> newest{{macOf(2), true}, {macOf(3), true}, {macOf(4), true}};
    EXPECT_EQ(std::vector<NftHostOp>(queue.pending().begin(), queue.pending().end()), newest);
    EXPECT_FALSE(queue.push({macOf(4), false}));  // a replacement takes no room
    EXPECT_TRUE(queue.flush(sender.callback()));
    for (unsigned i = 0; i < 3; ++i) EXPECT_FALSE(queue.push({macOf(i), true}));
    EXPECT_TRUE(queue.push({macOf(9), true}));  // a new episode is reported again
}

// --- against the real kernel, in the child ---

bool tablePresent() {
    return std::system("nft list table bridge hostrix >/dev/null 2>&1") == 0;
}

struct PipeCloser {
    void operator()(FILE *pipe) const { (void)pclose(pipe); }
};

// What the nft program shows of the table, elements and counts left out.
std::string tableShape() {
    std::unique_ptr<FILE, PipeCloser> pipe(
        popen("nft -nn list table bridge hostrix 2>/dev/null | grep -v elements", "r"));
    std::string text;
    char line[256];
    while (pipe && std::fgets(line, sizeof line, pipe.get())) text += line;
    return text;
}

// Whether the nft program lists HOST in set tx.
bool listedInTx(const char *host) {
    const std::string command =
        std::string("nft list set bridge hostrix tx 2>/dev/null | grep -q ") + host;
    return std::system(command.c_str()) == 0;
}

constexpr char kShape[] =
    "table bridge hostrix {\n"
    "\tset tx {\n\t\ttype ether_addr\n\t\tcounter\n\t}\n\n"
    "\tset rx {\n\t\ttype ether_addr\n\t\tcounter\n\t}\n\n"
    "\tchain forward_c {\n\t\ttype filter hook forward priority 0; policy accept;\n"
    "\t\tether saddr @tx\n\t\tether daddr @rx\n\t}\n\n"
    "\tchain input_c {\n\t\ttype filter hook input priority 0; policy accept;\n"
    "\t\tether saddr @tx\n\t}\n\n"
    "\tchain output_c {\n\t\ttype filter hook output priority 0; policy accept;\n"
    "\t\tether daddr @rx\n\t}\n"
    "}\n";

// The plain set's pair for ENTRY in one sampling pass; -1 in [0] when not answered.
std::array<int64_t, 2> sample(NftMac entry = kHostA) {
    uint64_t pair[2] = {};
    zvt_host_police_control_mib_counter_get_begin();
    int answer = zvt_host_police_control_mib_counter_get(entry.data(), pair);
    int fc = zvt_fc_host_police_control_mib_counter_get(entry.data(), pair);
    zvt_host_police_control_mib_counter_get_end();
    if (answer != 0 || fc != -1) return {-1, -1};
    return {static_cast<int64_t>(pair[0]), static_cast<int64_t>(pair[1])};
}

int update(NftMac host, int on) {
    return zvt_update_lan_hpc_for_mib(host.data(), on);
}

// One UDP datagram from the gateway through br0 to host A's address.
bool sendToHostA() {
    return std::system(
               "ip addr add 192.168.77.1/24 dev br0 && "
               "ip neigh add 192.168.77.2 lladdr 0a:77:00:00:00:01 dev br0 && "
               "bash -c 'echo to-host-a >/dev/udp/192.168.77.2/9'") == 0;
}

size_t lineCount(const std::string &text) {
    return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
}

class NftCountersKernel : public HostrixRootTest {
   protected:
    void SetUp() override {
        HostrixRootTest::SetUp();
        if (std::system("command -v nft >/dev/null 2>&1") != 0)
            GTEST_SKIP() << "the checks read the table with nft (Debian package nftables)";
    }
};

TEST_F(NftCountersKernel, RegisterCountUnregisterReplace) {
    expectPassesInPrivateNetns([] {
        NETNS_CHECK(zvt_fc_host_police_control_mib_counter_init() == 0 && tableShape() == kShape);
        NETNS_CHECK(sample()[0] == -1);                                           // not registered
        NETNS_CHECK(update(kHostA, 1) == 0 && !listedInTx("0a:77:00:00:00:01"));  // queued
        NETNS_CHECK(zvt_commit_lan_hpc() == 0 && listedInTx("0a:77:00:00:00:01"));
        if (!netnsMakeBridge()) return kNetnsNoSetup;
        NETNS_CHECK(sendToHostA());
        const auto counted = sample();
        NETNS_CHECK(counted[0] == 0 && counted[1] > 0);
        NETNS_CHECK(update(kHostA, 0) == 0 && sample()[0] == -1);  // sent before the listing
        NETNS_CHECK(update(kHostA, 0) == 0 && zvt_commit_lan_hpc() == 0);  // gone: no error
        NETNS_CHECK(update(kHostA, 1) == 0 && update(kHostB, 1) == 0 && sample()[0] == 0);
        NETNS_CHECK(zvt_fc_host_police_control_mib_counter_init() == 0 && sample()[0] == -1);
        return kNetnsPassed;
    });
}

// Nothing is made and nothing answers.
TEST_F(NftCountersKernel, OffInTheConfiguration) {
    writeConfig("counters = off\n");
    expectPassesInPrivateNetns([] {
        NETNS_CHECK(zvt_fc_host_police_control_mib_counter_init() == 0 && !tablePresent());
        NETNS_CHECK(update(kHostA, 1) == -1 && zvt_commit_lan_hpc() == -1 && sample()[0] == -1);
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

// The table deleted behind the daemon's back: said once, rates not available, the
// hosts kept until the table is back.
TEST_F(NftCountersKernel, FailedTransactionsKeepTheirHosts) {
    expectPassesInPrivateNetns([] {
        NETNS_CHECK(zvt_fc_host_police_control_mib_counter_init() == 0);
        NETNS_CHECK(std::system("nft delete table bridge hostrix") == 0);
        StderrCapture capture;
        NETNS_CHECK(update(kHostA, 1) == 0 && zvt_commit_lan_hpc() == -1);
        NETNS_CHECK(zvt_commit_lan_hpc() == -1 && sample()[0] == -1);
        const std::string failed = capture.text();
        NETNS_CHECK(lineCount(failed) == 1 && failed.find("No such file") != std::string::npos);
        NETNS_CHECK(zvt_fc_host_police_control_mib_counter_init() == 0);  // the table is back
        StderrCapture again;
        NETNS_CHECK(zvt_commit_lan_hpc() == 0 && sample()[0] == 0);
        const std::string recovered = again.text();
        NETNS_CHECK(lineCount(recovered) == 1 &&
                    recovered.find("answers again") != std::string::npos);
        return kNetnsPassed;
    });
}

// Without CAP_NET_ADMIN the kernel refuses the table: one line, and nothing answers.
TEST_F(NftCountersKernel, RefusedWithoutPermission) {
    expectPassesInPrivateNetns([] {
        constexpr uid_t kNobody = 65534;
        // The configuration's absence must stay visible to nobody.
        NETNS_CHECK(chmod(std::getenv("HOSTRIX_ROOT"), 0755) == 0);
        NETNS_CHECK(setresgid(kNobody, kNobody, kNobody) == 0 &&
                    setresuid(kNobody, kNobody, kNobody) == 0);
        StderrCapture capture;
        const int result = zvt_fc_host_police_control_mib_counter_init();
        const std::string said = capture.text();
        NETNS_CHECK(result == -1 && lineCount(said) == 1 &&
                    said.find("not available: the kernel refused the bridge table hostrix: "
                              "Operation not permitted") != std::string::npos);
        NETNS_CHECK(update(kHostA, 1) == -1 && sample()[0] == -1);
        return kNetnsPassed;
    });
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
