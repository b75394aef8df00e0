// Traffic counters on nftables: the set-element dump decoder on crafted kernel bytes,
// the registration queue, then the counter operations against the real kernel in a
// private network namespace.
#include <endian.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>

#include <optional>

#include "linux_test_support.h"
#include "netlink_bytes.h"
#include "netns_child.h"
#include "platform/linux/nft_counters.h"
#include "platform/zvt.h"

namespace {

constexpr NftMac kHostA{0x0a, 0x77, 0, 0, 0, 0x01};
constexpr NftMac kHostB{0x0a, 0x77, 0, 0, 0, 0x02};
constexpr uint32_t kSeq = 7;

// --- dumps laid out as the kernel sends them ---

using namespace nlbytes;

// An element of KEY with a counter named EXPR at BYTES, or without a counter.
Bytes elem(std::span<const uint8_t> key, std::optional<uint64_t> bytes,
           const char *expr = "counter") {
    Bytes counter;
    if (bytes)
        counter = nest(NFTA_SET_ELEM_EXPR,
                       join({attr(NFTA_EXPR_NAME, text(expr)),
                             nest(NFTA_EXPR_DATA,
                                  join({attrOf(NFTA_COUNTER_BYTES, htobe64(*bytes)),
                                        attrOf(NFTA_COUNTER_PACKETS, htobe64(1))}))}));
    return nest(NFTA_LIST_ELEM,
                join({nest(NFTA_SET_ELEM_KEY, attr(NFTA_DATA_VALUE, Bytes(key.begin(), key.end()))),
                      counter}));
}

Bytes set(const char *table, const char *name, const std::vector<Bytes> &elems,
          uint32_t seq = kSeq) {
    Bytes list;
    for (const Bytes &e : elems) list = join({list, e});
    return message(
        (NFNL_SUBSYS_NFTABLES << 8) | NFT_MSG_NEWSETELEM, seq,
        join({raw(nfgenmsg{NFPROTO_BRIDGE, NFNETLINK_V0, 0}),
              attr(NFTA_SET_ELEM_LIST_TABLE, text(table)),
              attr(NFTA_SET_ELEM_LIST_SET, text(name)),
              nest(NFTA_SET_ELEM_LIST_ELEMENTS, list)}),
        NLM_F_MULTI);
}

Bytes done(uint32_t seq = kSeq) {
    return message(NLMSG_DONE, seq, raw(0), NLM_F_MULTI);
}

NftCounter counter(const NftMac &mac, std::optional<uint64_t> tx, std::optional<uint64_t> rx) {
    return {mac, tx.value_or(0), rx.value_or(0), tx.has_value(), rx.has_value()};
}

TEST(NftDump, CraftedDatagrams) {
    const Bytes shortKey{0x0a, 0x77, 0, 0, 0};
    const Bytes cut = set("hostrix", "rx", {elem(kHostB, 1)});
    const std::tuple<const char *, Bytes, RouteDumpStatus, std::vector<NftCounter>> cases[] = {
        {"both sets, sorted by MAC, counts in network order",
         join({set("hostrix", "tx", {elem(kHostB, 300), elem(kHostA, UINT64_MAX)}),
               set("hostrix", "rx", {elem(kHostA, 200), elem(kHostB, 0x0102030405060708)}),
               done()}),
         RouteDumpStatus::Done,
         {counter(kHostA, UINT64_MAX, 200), counter(kHostB, 300, 0x0102030405060708)}},
        {"the dump goes on in the next datagram",
         set("hostrix", "tx", {elem(kHostA, 5)}),
         RouteDumpStatus::More,
         {counter(kHostA, 5, {})}},
        {"elements without a MAC key or a counter are left out",
         join({set("hostrix", "rx", {elem(shortKey, 1), elem(kHostB, 2), elem(kHostA, {})}),
               set("hostrix", "tx", {elem(kHostA, 3, "limit")})}),
         RouteDumpStatus::More,
         {counter(kHostB, {}, 2)}},
        {"other tables, sets and requests are ignored",
         join({set("filter", "tx", {elem(kHostA, 1)}), set("hostrix", "tx2", {elem(kHostA, 1)}),
               set("hostrix", "tx", {elem(kHostA, 1)}, kSeq + 1), done(kSeq + 1),
               set("hostrix", "rx", {elem(kHostA, 9)})}),
         RouteDumpStatus::More,
         {counter(kHostA, {}, 9)}},
        {"a refusal fails the dump",
         message(NLMSG_ERROR, kSeq, raw(nlmsgerr{.error = -ENOENT, .msg = {}})),
         RouteDumpStatus::Failed,
         {}},
        {"a message cut short fails the dump; what came whole before it stays",
         join({set("hostrix", "tx", {elem(kHostA, 1)}), Bytes(cut.begin(), cut.end() - 4)}),
         RouteDumpStatus::Failed,
         {counter(kHostA, 1, {})}},
    };
    for (const auto &[what, bytes, status, expected] : cases) {
        std::vector<NftSetElement> elements;
        EXPECT_EQ(decodeNftElementDump(bytes, kSeq, elements), status) << what;
        EXPECT_EQ(mergeNftElements(std::move(elements)), expected) << what;
    }
}

// --- the queue ---

NftMac macOf(unsigned i) {
    return {0x0a, 0x77, 0, 0, static_cast<uint8_t>(i >> 8), static_cast<uint8_t>(i)};
}

// The listing of a table grown past the bound keeps the first kMaxNftElements.
TEST(NftDump, ElementsCapped) {
    constexpr unsigned kPerMessage = 500;  // keeps each message's list under 64 KiB
    Bytes dump;
    for (unsigned first = 0; first < kMaxNftElements + 10; first += kPerMessage) {
        std::vector<Bytes> elems;
        for (unsigned i = first; i < first + kPerMessage; ++i) elems.push_back(elem(macOf(i), 1));
        dump = join({dump, set("hostrix", "tx", elems)});
    }
    std::vector<NftSetElement> elements;
    (void)decodeNftElementDump(dump, kSeq, elements);
    EXPECT_EQ(elements.size(), kMaxNftElements);
}

// A refused transaction stays queued whole for the next cycle's retry.
TEST(NftHostQueue, OneTransactionLastOpWinsKeptWhenRefused) {
    NftHostQueue queue;
    bool accept = true;
    std::vector<std::vector<NftHostOp>> sent;  // each transaction, answered as ACCEPT says
    const auto send = [&](std::span<const NftHostOp> ops) {
        sent.emplace_back(ops.begin(), ops.end());
        return accept;
    };
    EXPECT_TRUE(queue.flush(send));
    EXPECT_TRUE(sent.empty());  // nothing pending: the kernel is not asked
    std::vector<NftHostOp> expected;
    for (unsigned i = 0; i < 100; ++i) {
        queue.push({macOf(i), true});
        if (i != 3) expected.push_back({macOf(i), true});
    }
    queue.push({macOf(3), false});
    accept = false;
    EXPECT_FALSE(queue.flush(send));
    EXPECT_FALSE(queue.flush(send));
    queue.push({macOf(3), true});
    queue.push({macOf(3), false});
    expected.push_back({macOf(3), false});
    accept = true;
    EXPECT_TRUE(queue.flush(send));
    ASSERT_EQ(sent.size(), 3u);
    EXPECT_EQ(sent[2], expected);
    EXPECT_TRUE(queue.pending().empty());
}

TEST(NftHostQueue, FullQueueDropsTheOldestAndSaysSoOnce) {
    NftHostQueue queue(3);
    std::vector<bool> said;
    for (unsigned i = 0; i < 5; ++i) said.push_back(queue.push({macOf(i), true}));
    EXPECT_EQ(said, (std::vector<bool>{false, false, false, true, false}));
    const std::vector<NftHostOp> newest{{macOf(2), true}, {macOf(3), true}, {macOf(4), true}};
    EXPECT_EQ(std::vector<NftHostOp>(queue.pending().begin(), queue.pending().end()), newest);
    EXPECT_FALSE(queue.push({macOf(4), false}));  // a replacement takes no room
    EXPECT_TRUE(queue.flush([](std::span<const NftHostOp>) { return true; }));
    for (unsigned i = 0; i < 3; ++i) EXPECT_FALSE(queue.push({macOf(i), true}));
    EXPECT_TRUE(queue.push({macOf(9), true}));  // a new episode is reported again
}

// --- against the real kernel, in the child ---

bool tablePresent() {
    return std::system("nft list table bridge hostrix >/dev/null 2>&1") == 0;
}

// Whether the nft program lists HOST in set tx.
bool listedInTx(const std::string &host) {
    return std::system(("nft list set bridge hostrix tx | grep -q " + host).c_str()) == 0;
}

// The plain set's transmit count for ENTRY in one sampling pass; -1 when not answered.
int64_t sample(NftMac entry = kHostA) {
    uint64_t pair[2] = {};
    zvt_host_police_control_mib_counter_get_begin();
    const int answer = zvt_host_police_control_mib_counter_get(entry.data(), pair);
    const int fc = zvt_fc_host_police_control_mib_counter_get(entry.data(), pair);
    zvt_host_police_control_mib_counter_get_end();
    return answer == 0 && fc == -1 ? static_cast<int64_t>(pair[0]) : -1;
}

int update(NftMac host, int on) {
    return zvt_update_lan_hpc_for_mib(host.data(), on);
}

// Whether TEXT is one line holding WHAT.
bool oneLineWith(const std::string &text, const char *what) {
    return std::count(text.begin(), text.end(), '\n') == 1 && text.find(what) != std::string::npos;
}

class NftCountersKernel : public HostrixRootTest {
   protected:
    void SetUp() override {
        HostrixRootTest::SetUp();
        if (std::system("command -v nft >/dev/null 2>&1") != 0)
            GTEST_SKIP() << "the checks read the table with nft (Debian package nftables)";
    }
};

// What traffic counts, and that the table goes at the end, the lab shows. Here: what a
// sample answers, and the table deleted behind the daemon's back: said once, rates not
// available, the hosts kept until the table is back.
TEST_F(NftCountersKernel, RegisterSampleUnregisterAndLoseTheTable) {
    expectPassesInPrivateNetns([] {
        NETNS_CHECK(zvt_fc_host_police_control_mib_counter_init() == 0 && tablePresent() &&
                    sample() == -1);  // not registered
        NETNS_CHECK(update(kHostA, 1) == 0 && !listedInTx("0a:77:00:00:00:01"));  // queued
        NETNS_CHECK(zvt_commit_lan_hpc() == 0 && listedInTx("0a:77:00:00:00:01"));
        NETNS_CHECK(sample() == 0 && sample(kHostB) == -1);
        NETNS_CHECK(std::system("nft delete element bridge hostrix rx '{ 0a:77:00:00:00:01 }'") ==
                        0 &&
                    sample() == -1);                            // in one set only: no pair
        NETNS_CHECK(update(kHostA, 0) == 0 && sample() == -1);  // sent before the listing
        NETNS_CHECK(update(kHostA, 0) == 0 && zvt_commit_lan_hpc() == 0);  // gone: no error
        NETNS_CHECK(std::system("nft delete table bridge hostrix") == 0);
        StderrCapture capture;
        NETNS_CHECK(update(kHostA, 1) == 0 && zvt_commit_lan_hpc() == -1);
        NETNS_CHECK(zvt_commit_lan_hpc() == -1 && sample() == -1);
        NETNS_CHECK(oneLineWith(capture.text(), "No such file"));
        NETNS_CHECK(zvt_fc_host_police_control_mib_counter_init() == 0);  // the table is back
        StderrCapture again;
        NETNS_CHECK(zvt_commit_lan_hpc() == 0 && sample() == 0 &&
                    oneLineWith(again.text(), "answers again"));
        NETNS_CHECK(zvt_fc_host_police_control_mib_counter_init() == 0 && sample() == -1);
        return kNetnsPassed;
    });
}

// Nothing is made and nothing answers.
TEST_F(NftCountersKernel, OffInTheConfiguration) {
    writeConfig("counters = off\n");
    expectPassesInPrivateNetns([] {
        NETNS_CHECK(zvt_fc_host_police_control_mib_counter_init() == 0 && !tablePresent());
        NETNS_CHECK(update(kHostA, 1) == -1 && zvt_commit_lan_hpc() == -1 && sample() == -1);
        return kNetnsPassed;
    });
}

}  // namespace
