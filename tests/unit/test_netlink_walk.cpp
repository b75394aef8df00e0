// The libmnl walks on crafted bytes: what they visit and what they leave, each case
// also from an odd address, where the bytes must be copied before libmnl reads them.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <vector>

#include "core/netlink_walk.h"
#include "netlink_bytes.h"

namespace {

using nlbytes::Bytes;
using nlbytes::join;
using nlbytes::raw;

struct Walked {
    std::vector<uint16_t> types;  // of each message or attribute visited
    Bytes payloads;               // theirs, one after the other
    size_t left = 0;
    bool operator==(const Walked &) const = default;
};

// Walks BYTES from OFFSET bytes into an exactly sized heap block, so that ASan sees a
// read past the end, stopping at a message or attribute of type STOP.
template <bool Messages>
Walked walk(const Bytes &bytes, size_t offset, uint16_t stop = 0xffff) {
    auto block = std::make_unique<uint8_t[]>(offset + bytes.size());
    if (!bytes.empty()) std::memcpy(block.get() + offset, bytes.data(), bytes.size());
    const netlink::Bytes span(block.get() + offset, bytes.size());
    Walked out;
    const auto visit = [&](uint16_t type, netlink::Bytes payload) {
        out.types.push_back(type);
        out.payloads.insert(out.payloads.end(), payload.begin(), payload.end());
        return type != stop;
    };
    if constexpr (Messages)
        out.left = netlink::forEachMessage(span, [&](const nlmsghdr *message) {
            return visit(message->nlmsg_type, netlink::payloadOf(message));
        });
    else
        out.left = netlink::forEachAttribute(span, [&](const nlattr *attr) {
            return visit(mnl_attr_get_type(attr), netlink::payloadOf(attr));
        });
    return out;
}

Bytes message(uint16_t type, const Bytes &payload) {
    return nlbytes::message(type, 1, payload);
}

// BYTES with the length field of their first header set to LENGTH.
template <typename Length>
Bytes withLength(Bytes bytes, Length length) {
    std::memcpy(bytes.data(), &length, sizeof length);
    return bytes;
}

Bytes ones(size_t count) {
    return Bytes(count, 1);
}

struct Case {
    const char *what;
    Bytes bytes;
    Walked expected;
};

TEST(NetlinkWalk, MessagesWholeTruncatedAndImpossible) {
    const Bytes three = message(20, ones(3));  // 19 bytes, padded to 20 when another follows
    const Bytes eight = message(20, ones(8));
    const Case cases[] = {
        {"empty", {}, {{}, {}, 0}},
        {"last one unpadded", join({three, Bytes(1), three}), {{20, 20}, ones(6), 0}},
        {"a tail too short for a header", join({three, Bytes(1), ones(5)}), {{20}, ones(3), 5}},
        {"a length past the end", withLength(three, 24u), {{}, {}, 19}},
        {"a length under the header's", withLength(eight, 8u), {{}, {}, 24}},
        {"a zero length", join({three, Bytes(1), withLength(three, 0u)}), {{20}, ones(3), 19}},
        {"a length with its top bit set", withLength(eight, 0x80000018u), {{}, {}, 24}},
        {"stopped by the visitor", join({message(7, {}), three}), {{7}, {}, 0}},
    };
    for (const Case &c : cases)
        for (size_t offset : {0, 1})
            EXPECT_EQ(walk<true>(c.bytes, offset, 7), c.expected) << c.what << " at " << offset;
}

TEST(NetlinkWalk, AttributesWholeTruncatedAndImpossible) {
    const Bytes three = nlbytes::attr(5, ones(3));  // 7 bytes, padded to 8 when another follows
    const Case cases[] = {
        {"last one unpadded",
         join({three, Bytes(three.begin(), three.end() - 1)}),
         {{5, 5}, ones(6), 0}},
        {"flags off the type", nlbytes::attr(6 | NLA_F_NESTED, three), {{6}, three, 0}},
        {"a tail too short for a header", join({three, ones(3)}), {{5}, ones(3), 3}},
        {"a length past the end", withLength(three, uint16_t{12}), {{}, {}, 8}},
        {"a length under the header's",
         join({three, raw(nlattr{2, 5}), three}),
         {{5}, ones(3), 12}},
        {"a zero length", join({raw(nlattr{0, 5}), three}), {{}, {}, 12}},
        {"stopped by the visitor", join({nlbytes::attr(7, {}), three}), {{7}, {}, 0}},
    };
    for (const Case &c : cases)
        for (size_t offset : {0, 1})
            EXPECT_EQ(walk<false>(c.bytes, offset, 7), c.expected) << c.what << " at " << offset;
}

}  // namespace
