// The pure parts of the nftables counters: the set-element dump decoder and the queue
// of registrations.
#include "platform/linux/nft_counters.h"

#include <libmnl/libmnl.h>
#include <libnftnl/expr.h>
#include <libnftnl/set.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netlink.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string_view>

#include "core/netlink_walk.h"

namespace {

constexpr std::string_view kTableName = "hostrix";
constexpr uint16_t kNewSetElem = (NFNL_SUBSYS_NFTABLES << 8) | NFT_MSG_NEWSETELEM;

struct SetFree {
    void operator()(nftnl_set *set) const { nftnl_set_free(set); }
};
using SetPtr = std::unique_ptr<nftnl_set, SetFree>;

bool setOf(const nftnl_set *set, NftSet &which) {
    const char *table = nftnl_set_get_str(set, NFTNL_SET_TABLE);
    const char *name = nftnl_set_get_str(set, NFTNL_SET_NAME);
    if (!table || !name || table != kTableName) return false;
    const std::string_view setName = name;
    if (setName != "tx" && setName != "rx") return false;
    which = setName == "tx" ? NftSet::Tx : NftSet::Rx;
    return true;
}

struct CounterSearch {
    bool found = false;
    uint64_t bytes = 0;
};

// Called by libnftnl for each expression of an element; it must not throw.
int findCounter(nftnl_expr *expr, void *data) noexcept {
    const char *name = nftnl_expr_get_str(expr, NFTNL_EXPR_NAME);
    if (!name || std::string_view(name) != "counter" ||
        !nftnl_expr_is_set(expr, NFTNL_EXPR_CTR_BYTES))
        return MNL_CB_OK;
    auto *search = static_cast<CounterSearch *>(data);
    search->found = true;
    search->bytes = nftnl_expr_get_u64(expr, NFTNL_EXPR_CTR_BYTES);
    return MNL_CB_STOP;
}

bool readElement(nftnl_set_elem *elem, NftSetElement &out) {
    uint32_t keyLength = 0;
    const void *key = nftnl_set_elem_get(elem, NFTNL_SET_ELEM_KEY, &keyLength);
    if (!key || keyLength != kNftMacBytes) return false;
    CounterSearch counter;
    (void)nftnl_set_elem_expr_foreach(elem, findCounter, &counter);
    if (!counter.found) return false;
    std::memcpy(out.mac.data(), key, kNftMacBytes);
    out.bytes = counter.bytes;
    return true;
}

// Calls EACH with every attribute within LENGTH bytes at PAYLOAD while it says true;
// false when EACH said false.
template <typename Each>
bool eachAttr(const void *payload, size_t length, Each each) {
    bool all = true;
    (void)netlink::forEachAttribute({static_cast<const uint8_t *>(payload), length},
                                    [&](const nlattr *attr) { return all = each(attr); });
    return all;
}

template <typename Each>
bool eachNested(const nlattr *nest, Each each) {
    return eachAttr(mnl_attr_get_payload(nest), mnl_attr_get_payload_len(nest), each);
}

// libnftnl's parsers trust the kernel: an attribute of the wrong size makes them call
// exit(), an expression without a name crashes them, and an element attribute of an
// unknown type past the element's own maximum is stored beyond their table on the
// stack. So a message reaches them only when every attribute in it is one that a
// counter set's dump holds, of its proper type; anything else leaves the message out.
struct Rule {
    uint16_t type;
    mnl_attr_data_type kind;
    bool (*inner)(const nlattr *attr);  // further checks, or nullptr
};

template <size_t N>
bool attrsValid(const void *payload, size_t length, const Rule (&rules)[N]) {
    return eachAttr(payload, length, [&](const nlattr *attr) {
        const uint16_t type = mnl_attr_get_type(attr);
        for (const Rule &rule : rules)
            if (rule.type == type)
                return mnl_attr_validate(attr, rule.kind) == 0 && (!rule.inner || rule.inner(attr));
        return false;
    });
}

template <size_t N>
bool nestValid(const nlattr *nest, const Rule (&rules)[N]) {
    return attrsValid(mnl_attr_get_payload(nest), mnl_attr_get_payload_len(nest), rules);
}

// A list of nests of type NFTA_LIST_ELEM, each valid by EACH.
bool listValid(const nlattr *list, bool (*each)(const nlattr *)) {
    return eachNested(list, [&](const nlattr *attr) {
        return mnl_attr_get_type(attr) == NFTA_LIST_ELEM &&
               mnl_attr_validate(attr, MNL_TYPE_NESTED) == 0 && each(attr);
    });
}

bool counterValid(const nlattr *data) {
    static constexpr Rule kRules[] = {{NFTA_COUNTER_BYTES, MNL_TYPE_U64, nullptr},
                                      {NFTA_COUNTER_PACKETS, MNL_TYPE_U64, nullptr},
                                      {NFTA_COUNTER_PAD, MNL_TYPE_UNSPEC, nullptr}};
    return nestValid(data, kRules);
}

bool namesCounter(const nlattr *name) {
    return std::string_view(mnl_attr_get_str(name)) == "counter";
}

bool isName(const nlattr *attr) {
    return mnl_attr_get_type(attr) == NFTA_EXPR_NAME;
}

// Only counters: any other expression would be parsed by rules of its own.
bool exprValid(const nlattr *expr) {
    static constexpr Rule kRules[] = {{NFTA_EXPR_NAME, MNL_TYPE_NUL_STRING, namesCounter},
                                      {NFTA_EXPR_DATA, MNL_TYPE_NESTED, counterValid}};
    return nestValid(expr, kRules) &&
           !eachNested(expr, [](const nlattr *attr) { return !isName(attr); });
}

bool exprListValid(const nlattr *list) {
    return listValid(list, exprValid);
}

bool valueFits(const nlattr *value) {
    return mnl_attr_get_payload_len(value) <= NFT_DATA_VALUE_MAXLEN;
}

bool keyValid(const nlattr *key) {
    static constexpr Rule kRules[] = {{NFTA_DATA_VALUE, MNL_TYPE_BINARY, valueFits}};
    return nestValid(key, kRules);
}

bool elementValid(const nlattr *element) {
    static constexpr Rule kRules[] = {{NFTA_SET_ELEM_KEY, MNL_TYPE_NESTED, keyValid},
                                      {NFTA_SET_ELEM_FLAGS, MNL_TYPE_U32, nullptr},
                                      {NFTA_SET_ELEM_TIMEOUT, MNL_TYPE_U64, nullptr},
                                      {NFTA_SET_ELEM_EXPIRATION, MNL_TYPE_U64, nullptr},
                                      {NFTA_SET_ELEM_USERDATA, MNL_TYPE_BINARY, nullptr},
                                      {NFTA_SET_ELEM_EXPR, MNL_TYPE_NESTED, exprValid},
                                      {NFTA_SET_ELEM_EXPRESSIONS, MNL_TYPE_NESTED, exprListValid},
                                      {NFTA_SET_ELEM_PAD, MNL_TYPE_UNSPEC, nullptr}};
    return nestValid(element, kRules);
}

bool elementListValid(const nlattr *list) {
    return listValid(list, elementValid);
}

bool messageValid(const nlmsghdr *message) {
    static constexpr Rule kRules[] = {
        {NFTA_SET_ELEM_LIST_TABLE, MNL_TYPE_NUL_STRING, nullptr},
        {NFTA_SET_ELEM_LIST_SET, MNL_TYPE_NUL_STRING, nullptr},
        {NFTA_SET_ELEM_LIST_ELEMENTS, MNL_TYPE_NESTED, elementListValid},
        {NFTA_SET_ELEM_LIST_SET_ID, MNL_TYPE_U32, nullptr}};
    // The same bounds as libmnl's walk: from the attributes to the rounded-up end.
    const size_t offset = MNL_ALIGN(sizeof(nfgenmsg));
    const auto *first = static_cast<const uint8_t *>(mnl_nlmsg_get_payload_offset(message, offset));
    const auto *tail = static_cast<const uint8_t *>(mnl_nlmsg_get_payload_tail(message));
    return attrsValid(first, static_cast<size_t>(tail - first), kRules);
}

struct ElementSink {
    NftSet set;
    std::vector<NftSetElement> &elements;
};

// Called by libnftnl for each element of a message; nothing may escape it.
int takeElement(nftnl_set_elem *elem, void *data) noexcept {
    auto *sink = static_cast<ElementSink *>(data);
    if (sink->elements.size() >= kMaxNftElements) return MNL_CB_STOP;
    NftSetElement element{.set = sink->set};
    if (!readElement(elem, element)) return MNL_CB_OK;
    try {
        sink->elements.push_back(element);
    } catch (...) {
        return MNL_CB_ERROR;
    }
    return MNL_CB_OK;
}

void decodeMessage(const nlmsghdr *message, std::vector<NftSetElement> &elements) {
    // libnftnl reads the family byte without checking that the body holds it.
    if (message->nlmsg_type != kNewSetElem || message->nlmsg_len < NLMSG_LENGTH(sizeof(nfgenmsg)) ||
        !messageValid(message))
        return;
    SetPtr set(nftnl_set_alloc());
    ElementSink sink{NftSet::Tx, elements};
    if (!set || nftnl_set_elems_nlmsg_parse(message, set.get()) < 0 || !setOf(set.get(), sink.set))
        return;
    (void)nftnl_set_elem_foreach(set.get(), takeElement, &sink);
}

RouteDumpStatus errorStatus(const nlmsghdr *message) {
    if (message->nlmsg_len < NLMSG_LENGTH(sizeof(nlmsgerr))) return RouteDumpStatus::Failed;
    nlmsgerr error;
    std::memcpy(&error, mnl_nlmsg_get_payload(message), sizeof error);
    return error.error == 0 ? RouteDumpStatus::Done : RouteDumpStatus::Failed;
}

// libnftnl reads a message's attributes up to its length rounded up, so that must lie
// within the datagram too.
bool fitsAligned(const nlmsghdr *message, netlink::Bytes datagram) {
    const auto at =
        static_cast<size_t>(reinterpret_cast<const uint8_t *>(message) - datagram.data());
    return MNL_ALIGN(message->nlmsg_len) <= datagram.size() - at;
}

RouteDumpStatus statusOf(const nlmsghdr *message, std::vector<NftSetElement> &elements) {
    if (message->nlmsg_type == NLMSG_DONE) return RouteDumpStatus::Done;
    if (message->nlmsg_type == NLMSG_ERROR) return errorStatus(message);
    if (message->nlmsg_type == NLMSG_OVERRUN) return RouteDumpStatus::Failed;
    decodeMessage(message, elements);
    return RouteDumpStatus::More;
}

}  // namespace

RouteDumpStatus decodeNftElementDump(std::span<const uint8_t> datagram, uint32_t sequence,
                                     std::vector<NftSetElement> &elements) {
    return netlink::onAligned(datagram, [&](netlink::Bytes bytes) {
        RouteDumpStatus status = RouteDumpStatus::More;
        const size_t left = netlink::forEachMessage(bytes, [&](const nlmsghdr *message) {
            if (!fitsAligned(message, bytes)) status = RouteDumpStatus::Failed;
            if (status == RouteDumpStatus::More && message->nlmsg_seq == sequence)
                status = statusOf(message, elements);
            return status == RouteDumpStatus::More;
        });
        return left == 0 ? status : RouteDumpStatus::Failed;
    });
}

std::vector<NftCounter> mergeNftElements(std::vector<NftSetElement> elements) {
    std::stable_sort(elements.begin(), elements.end(),
                     [](const NftSetElement &a, const NftSetElement &b) { return a.mac < b.mac; });
    std::vector<NftCounter> counters;
    for (const NftSetElement &element : elements) {
        if (counters.empty() || counters.back().mac != element.mac)
            counters.push_back(NftCounter{.mac = element.mac});
        NftCounter &counter = counters.back();
        if (element.set == NftSet::Tx) {
            counter.txBytes = element.bytes;
            counter.inTx = true;
        } else {
            counter.rxBytes = element.bytes;
            counter.inRx = true;
        }
    }
    return counters;
}

bool NftHostQueue::push(const NftHostOp &op) {
    auto same = std::find_if(ops_.begin(), ops_.end(),
                             [&](const NftHostOp &queued) { return queued.mac == op.mac; });
    if (same != ops_.end()) ops_.erase(same);
    bool firstDrop = false;
    if (ops_.size() >= capacity_) {
        ops_.erase(ops_.begin());
        firstDrop = !dropReported_;
        dropReported_ = true;
    }
    ops_.push_back(op);
    return firstDrop;
}

bool NftHostQueue::flush(const Send &send) {
    if (ops_.empty()) return true;
    if (!send(ops_)) return false;
    ops_.clear();
    dropReported_ = false;
    return true;
}
