#include "platform/linux/nft_netlink.h"

#include <libmnl/libmnl.h>
#include <libnftnl/batch.h>
#include <libnftnl/chain.h>
#include <libnftnl/common.h>
#include <libnftnl/expr.h>
#include <libnftnl/rule.h>
#include <libnftnl/set.h>
#include <libnftnl/table.h>
#include <libnftnl/udata.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter_bridge.h>
#include <linux/netlink.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>

#include "core/netlink_walk.h"
#include "platform/linux/netlink_socket.h"

namespace {

constexpr char kTable[] = "hostrix";
constexpr uint16_t kFamily = NFPROTO_BRIDGE;
// Room reserved for each message of a batch; the element messages are cut into
// pieces of kElementsPerMessage (about 24 bytes each) so that one always fits.
constexpr size_t kMessageRoom = 16384;
constexpr size_t kElementsPerMessage = 256;
constexpr size_t kRequestBytes = 512;  // one dump request: header, table, set
constexpr size_t kAckBuffer = 4096;
constexpr int kSpareReplyDatagrams = 16;  // strays tolerated while waiting for answers
constexpr uint32_t kEtherAddrType = 9;    // nftables' datatype number of ether_addr
constexpr uint32_t kSaddrOffset = 6;      // in the Ethernet header
constexpr uint32_t kDaddrOffset = 0;
// The key's byte order as nft itself records it in the set's user data, so that the
// nft program lists the set exactly as one it made.
constexpr uint8_t kUdataKeyByteOrder = 0;
constexpr uint32_t kBigEndian = 2;
constexpr uint32_t kUdataBytes = 32;

template <auto Free>
struct Freer {
    template <typename T>
    void operator()(T *object) const {
        Free(object);
    }
};
using TablePtr = std::unique_ptr<nftnl_table, Freer<nftnl_table_free>>;
using ChainPtr = std::unique_ptr<nftnl_chain, Freer<nftnl_chain_free>>;
using SetPtr = std::unique_ptr<nftnl_set, Freer<nftnl_set_free>>;
using ElemPtr = std::unique_ptr<nftnl_set_elem, Freer<nftnl_set_elem_free>>;
using RulePtr = std::unique_ptr<nftnl_rule, Freer<nftnl_rule_free>>;
using ExprPtr = std::unique_ptr<nftnl_expr, Freer<nftnl_expr_free>>;
using UdataPtr = std::unique_ptr<nftnl_udata_buf, Freer<nftnl_udata_buf_free>>;

struct SetShape {
    NftSet set;
    const char *name;
    uint32_t id;  // lets the rules of the same batch name the set before it exists
};
constexpr SetShape kSets[] = {{NftSet::Tx, "tx", 1}, {NftSet::Rx, "rx", 2}};

struct ChainShape {
    const char *name;
    uint32_t hook;
};
constexpr ChainShape kChains[] = {
    {"forward_c", NF_BR_FORWARD}, {"input_c", NF_BR_LOCAL_IN}, {"output_c", NF_BR_LOCAL_OUT}};

// "ether saddr @tx" counts what a host sends, "ether daddr @rx" what it receives.
struct RuleShape {
    const char *chain;
    uint32_t offset;
    const SetShape &set;
};
constexpr RuleShape kRules[] = {{"forward_c", kSaddrOffset, kSets[0]},
                                {"forward_c", kDaddrOffset, kSets[1]},
                                {"input_c", kSaddrOffset, kSets[0]},
                                {"output_c", kDaddrOffset, kSets[1]}};

uint32_t nextSequences(uint32_t count) {
    static std::atomic<uint32_t> sequence{static_cast<uint32_t>(time(nullptr))};
    return sequence.fetch_add(count);
}

// The messages of one transaction between a batch begin and a batch end, each asking
// for an answer. A message's payload is built in place before the next is begun.
class Batch {
   public:
    Batch() : first_(nextSequences(kMaxSequences)) { nftnl_batch_begin(room(), first_); }

    nlmsghdr *message(uint16_t type, uint16_t flags) {
        ++commands_;
        return nftnl_nlmsg_build_hdr(room(), type, kFamily, flags | NLM_F_ACK, first_ + commands_);
    }

    std::span<const uint8_t> finish() {
        nftnl_batch_end(room(), first_ + commands_ + 1);
        (void)room();
        return {bytes_.data(), used_};
    }

    uint32_t firstSequence() const { return first_; }
    uint32_t lastSequence() const { return first_ + commands_ + 1; }
    uint32_t commands() const { return commands_; }
    // A batch never holds more messages than this; their sequences are kept apart.
    static constexpr uint32_t kMaxSequences = 1u << 16;

   private:
    // Closes the message before and leaves kMessageRoom zeroed bytes for the next.
    char *room() {
        if (open_) {
            const auto *header = reinterpret_cast<const nlmsghdr *>(bytes_.data() + used_);
            used_ += MNL_ALIGN(header->nlmsg_len);
        }
        open_ = true;
        bytes_.resize(used_ + kMessageRoom);
        return reinterpret_cast<char *>(bytes_.data() + used_);
    }

    uint32_t first_;
    uint32_t commands_ = 0;
    std::vector<uint8_t> bytes_;  // operator new aligns it for the headers
    size_t used_ = 0;
    bool open_ = false;
};

bool addTable(Batch &batch, uint16_t type, uint16_t flags) {
    TablePtr table(nftnl_table_alloc());
    if (!table || nftnl_table_set_str(table.get(), NFTNL_TABLE_NAME, kTable) < 0) return false;
    if (type == NFT_MSG_NEWTABLE) nftnl_table_set_u32(table.get(), NFTNL_TABLE_FLAGS, 0);
    nftnl_table_nlmsg_build_payload(batch.message(type, flags), table.get());
    return true;
}

bool setKeyByteOrder(nftnl_set *set) {
    UdataPtr udata(nftnl_udata_buf_alloc(kUdataBytes));
    return udata && nftnl_udata_put_u32(udata.get(), kUdataKeyByteOrder, kBigEndian) &&
           nftnl_set_set_data(set, NFTNL_SET_USERDATA, nftnl_udata_buf_data(udata.get()),
                              nftnl_udata_buf_len(udata.get())) == 0;
}

// A set of MACs with a counter in each element ("type ether_addr; counter;").
bool addSet(Batch &batch, const SetShape &shape) {
    SetPtr set(nftnl_set_alloc());
    ExprPtr counter(nftnl_expr_alloc("counter"));
    if (!set || !counter || nftnl_set_set_str(set.get(), NFTNL_SET_TABLE, kTable) < 0 ||
        nftnl_set_set_str(set.get(), NFTNL_SET_NAME, shape.name) < 0 || !setKeyByteOrder(set.get()))
        return false;
    nftnl_set_set_u32(set.get(), NFTNL_SET_FLAGS, 0);
    nftnl_set_set_u32(set.get(), NFTNL_SET_KEY_TYPE, kEtherAddrType);
    nftnl_set_set_u32(set.get(), NFTNL_SET_KEY_LEN, kNftMacBytes);
    nftnl_set_set_u32(set.get(), NFTNL_SET_ID, shape.id);
    nftnl_set_add_expr(set.get(), counter.release());
    nftnl_set_nlmsg_build_payload(batch.message(NFT_MSG_NEWSET, NLM_F_CREATE), set.get());
    return true;
}

bool addChain(Batch &batch, const ChainShape &shape) {
    ChainPtr chain(nftnl_chain_alloc());
    if (!chain || nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_TABLE, kTable) < 0 ||
        nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_NAME, shape.name) < 0 ||
        nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_TYPE, "filter") < 0)
        return false;
    nftnl_chain_set_u32(chain.get(), NFTNL_CHAIN_HOOKNUM, shape.hook);
    nftnl_chain_set_s32(chain.get(), NFTNL_CHAIN_PRIO, 0);
    nftnl_chain_set_u32(chain.get(), NFTNL_CHAIN_POLICY, NF_ACCEPT);
    nftnl_chain_nlmsg_build_payload(batch.message(NFT_MSG_NEWCHAIN, NLM_F_CREATE), chain.get());
    return true;
}

// Loads the MAC at OFFSET of the Ethernet header into register 1 and looks it up in
// the set, whose element's counter then counts the packet.
bool addRule(Batch &batch, const RuleShape &shape) {
    RulePtr rule(nftnl_rule_alloc());
    ExprPtr payload(nftnl_expr_alloc("payload"));
    ExprPtr lookup(nftnl_expr_alloc("lookup"));
    if (!rule || !payload || !lookup ||
        nftnl_rule_set_str(rule.get(), NFTNL_RULE_TABLE, kTable) < 0 ||
        nftnl_rule_set_str(rule.get(), NFTNL_RULE_CHAIN, shape.chain) < 0 ||
        nftnl_expr_set_str(lookup.get(), NFTNL_EXPR_LOOKUP_SET, shape.set.name) < 0)
        return false;
    nftnl_expr_set_u32(payload.get(), NFTNL_EXPR_PAYLOAD_DREG, NFT_REG_1);
    nftnl_expr_set_u32(payload.get(), NFTNL_EXPR_PAYLOAD_BASE, NFT_PAYLOAD_LL_HEADER);
    nftnl_expr_set_u32(payload.get(), NFTNL_EXPR_PAYLOAD_OFFSET, shape.offset);
    nftnl_expr_set_u32(payload.get(), NFTNL_EXPR_PAYLOAD_LEN, kNftMacBytes);
    nftnl_expr_set_u32(lookup.get(), NFTNL_EXPR_LOOKUP_SREG, NFT_REG_1);
    nftnl_expr_set_u32(lookup.get(), NFTNL_EXPR_LOOKUP_SET_ID, shape.set.id);
    nftnl_rule_add_expr(rule.get(), payload.release());
    nftnl_rule_add_expr(rule.get(), lookup.release());
    nftnl_rule_nlmsg_build_payload(batch.message(NFT_MSG_NEWRULE, NLM_F_CREATE | NLM_F_APPEND),
                                   rule.get());
    return true;
}

bool buildTable(Batch &batch) {
    if (!addTable(batch, NFT_MSG_NEWTABLE, NLM_F_CREATE) || !addTable(batch, NFT_MSG_DELTABLE, 0) ||
        !addTable(batch, NFT_MSG_NEWTABLE, NLM_F_CREATE))
        return false;
    for (const SetShape &set : kSets)
        if (!addSet(batch, set)) return false;
    for (const ChainShape &chain : kChains)
        if (!addChain(batch, chain)) return false;
    for (const RuleShape &rule : kRules)
        if (!addRule(batch, rule)) return false;
    return true;
}

SetPtr namedSet(const char *name) {
    SetPtr set(nftnl_set_alloc());
    if (set && (nftnl_set_set_str(set.get(), NFTNL_SET_TABLE, kTable) < 0 ||
                nftnl_set_set_str(set.get(), NFTNL_SET_NAME, name) < 0))
        set.reset();
    return set;
}

// One message of TYPE for the MACs of OPS in set NAME.
bool addElements(Batch &batch, uint16_t type, uint16_t flags, const char *name,
                 std::span<const NftHostOp> ops) {
    SetPtr set = namedSet(name);
    if (!set) return false;
    for (const NftHostOp &op : ops) {
        ElemPtr elem(nftnl_set_elem_alloc());
        if (!elem ||
            nftnl_set_elem_set(elem.get(), NFTNL_SET_ELEM_KEY, op.mac.data(), kNftMacBytes) < 0)
            return false;
        nftnl_set_elem_add(set.get(), elem.release());
    }
    nftnl_set_elems_nlmsg_build_payload(batch.message(type, flags), set.get());
    return true;
}

// The MACs of OPS (only those leaving, when LEAVING), cut into messages that fit.
bool addElementMessages(Batch &batch, uint16_t type, uint16_t flags, bool leaving,
                        std::span<const NftHostOp> ops) {
    std::vector<NftHostOp> chosen;
    for (const NftHostOp &op : ops)
        if (!leaving || !op.on) chosen.push_back(op);
    for (const SetShape &set : kSets) {
        for (size_t start = 0; start < chosen.size(); start += kElementsPerMessage) {
            const size_t count = std::min(kElementsPerMessage, chosen.size() - start);
            if (!addElements(batch, type, flags, set.name,
                             std::span<const NftHostOp>(chosen).subspan(start, count)))
                return false;
        }
    }
    return true;
}

// The errno of the refusal in an NLMSG_ERROR MESSAGE, 0 for an acknowledgement.
int answerError(const nlmsghdr *message) {
    if (message->nlmsg_len < NLMSG_LENGTH(sizeof(nlmsgerr))) return EIO;
    nlmsgerr answer;
    std::memcpy(&answer, mnl_nlmsg_get_payload(message), sizeof answer);
    if (answer.error == 0) return 0;
    return answer.error < 0 && answer.error > -4096 ? -answer.error : EIO;
}

// Counts in ANSWERED the acknowledgements in DATAGRAM for messages of the batch that
// ran from FIRST to LAST; the first refusal's errno, or 0.
int readAnswers(std::span<const uint8_t> datagram, uint32_t first, uint32_t last,
                uint32_t &answered) {
    int error = 0;
    (void)netlink::forEachMessage(datagram, [&](const nlmsghdr *message) {
        // Unsigned differences keep the range right when the numbers wrap.
        if (message->nlmsg_type != NLMSG_ERROR || message->nlmsg_seq - first > last - first)
            return true;
        error = answerError(message);
        answered += error == 0 ? 1 : 0;
        return error == 0;
    });
    return error;
}

// Every message asked for an answer; any refusal aborts the whole transaction.
int awaitAnswers(const UniqueFd &sock, const Batch &batch) {
    std::vector<uint8_t> buffer(kAckBuffer);
    uint32_t answered = 0;
    for (uint32_t i = 0; i < batch.commands() + kSpareReplyDatagrams; ++i) {
        const ssize_t got = receiveRouteDatagram(sock, buffer);
        if (got < 0) return errno == EAGAIN || errno == EWOULDBLOCK ? ETIMEDOUT : EIO;
        const int error = readAnswers({buffer.data(), static_cast<size_t>(got)},
                                      batch.firstSequence(), batch.lastSequence(), answered);
        if (error != 0) return error;
        if (answered >= batch.commands()) return 0;
    }
    return EIO;
}

int transact(Batch &batch) {
    UniqueFd sock = openNftSocket();
    if (!sock.valid()) return errno ? errno : EIO;
    errno = 0;
    if (!sendRouteRequest(sock, batch.finish())) return errno ? errno : EIO;
    return awaitAnswers(sock, batch);
}

}  // namespace

int nftReplaceTable() {
    Batch batch;
    return buildTable(batch) ? transact(batch) : ENOMEM;
}

int nftDeleteTable() {
    Batch batch;
    return addTable(batch, NFT_MSG_DELTABLE, 0) ? transact(batch) : ENOMEM;
}

int nftSendHostOps(std::span<const NftHostOp> ops) {
    if (ops.size() > kMaxNftPendingHosts) return E2BIG;  // keeps the batch's sequences apart
    Batch batch;
    if (!addElementMessages(batch, NFT_MSG_NEWSETELEM, NLM_F_CREATE, false, ops) ||
        !addElementMessages(batch, NFT_MSG_DELSETELEM, 0, true, ops))
        return ENOMEM;
    return transact(batch);
}

UniqueFd openNftSocket() {
    UniqueFd sock = openKernelNetlinkSocket(NETLINK_NETFILTER);
    const int on = 1;  // acknowledgements without a copy of the request
    if (sock.valid() && setsockopt(sock.get(), SOL_NETLINK, NETLINK_CAP_ACK, &on, sizeof on) != 0)
        sock.reset();
    return sock;
}

bool nftDumpSet(const UniqueFd &sock, NftSet which, uint32_t sequence,
                const RouteDatagramDecoder &decode) {
    SetPtr set = namedSet(which == NftSet::Tx ? "tx" : "rx");
    if (!set) return false;
    alignas(nlmsghdr) char request[kRequestBytes] = {};
    nlmsghdr *header =
        nftnl_nlmsg_build_hdr(request, NFT_MSG_GETSETELEM, kFamily, NLM_F_DUMP, sequence);
    nftnl_set_elems_nlmsg_build_payload(header, set.get());
    return sendRouteRequest(sock,
                            {reinterpret_cast<const uint8_t *>(request), header->nlmsg_len}) &&
           readRouteDump(sock, decode);
}

bool nftReadCounters(std::vector<NftSetElement> &elements) {
    const UniqueFd sock = openNftSocket();
    if (!sock.valid()) return false;
    for (const SetShape &shape : kSets) {
        const uint32_t sequence = nextSequences(1);
        if (!nftDumpSet(sock, shape.set, sequence, [&](std::span<const uint8_t> datagram) {
                return decodeNftElementDump(datagram, sequence, elements);
            }))
            return false;
    }
    return true;
}
