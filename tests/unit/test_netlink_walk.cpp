// The libmnl message walk on crafted bytes: what it visits and what it leaves, each
// case also from an odd address, where the bytes must be copied before libmnl reads
// them. The attribute walk is exercised by every decoder's tests and the fuzz targets.
#include <gtest/gtest.h>

#include <cstring>

#include "core/netlink_walk.h"
#include "netlink_bytes.h"

namespace {

using nlbytes::Bytes;
using nlbytes::join;
using nlbytes::message;

struct Walked {
    std::vector<uint16_t> types;  // of each message visited
    Bytes payloads;               // theirs, one after the other
    size_t left = 0;
    bool operator==(const Walked &) const = default;
};

// Walks BYTES from OFFSET bytes into an exactly sized heap block, so that ASan sees a
// read past the end, stopping at a message of type STOP.
Walked walk(const Bytes &bytes, size_t offset, uint16_t stop = 0xffff) {
    auto block = std::make_unique<uint8_t[]>(offset + bytes.size());
    if (!bytes.empty()) std::memcpy(block.get() + offset, bytes.data(), bytes.size());
    const netlink::Bytes span(block.get() + offset, bytes.size());
    Walked out;
    out.left = netlink::forEachMessage(span, [&](const nlmsghdr *message) {
        const netlink::Bytes payload = netlink::payloadOf(message);
        out.types.push_back(message->nlmsg_type);
        out.payloads.insert(out.payloads.end(), payload.begin(), payload.end());
        return message->nlmsg_type != stop;
    });
    return out;
}

// BYTES with the length field of their first header set to LENGTH.
template <typename Length>
Bytes withLength(Bytes bytes, Length length) {
    std::memcpy(bytes.data(), &length, sizeof length);
    return bytes;
}

TEST(NetlinkWalk, MessagesWholeTruncatedAndImpossible) {
    const Bytes three = message(20, 1, Bytes(3, 1));  // 19 bytes, padded to 20 when another follows
    const Bytes eight = message(20, 1, Bytes(8, 1));
    // What the bytes are, the bytes, and what the walk visits and leaves.
    const std::tuple<const char *, Bytes, Walked> cases[] = {
        {"empty", {}, {{}, {}, 0}},
        {"last one unpadded", join({three, Bytes(1), three}), {{20, 20}, Bytes(6, 1), 0}},
        {"a headerless tail", join({three, Bytes(1), Bytes(5, 1)}), {{20}, Bytes(3, 1), 5}},
        {"a length past the end", withLength(three, 24u), {{}, {}, 19}},
        {"a length under the header's", withLength(eight, 8u), {{}, {}, 24}},
        {"a zero length", join({three, Bytes(1), withLength(three, 0u)}), {{20}, Bytes(3, 1), 19}},
        {"a length with its top bit set", withLength(eight, 0x80000018u), {{}, {}, 24}},
        {"stopped by the visitor", join({message(7, 1, {}), three}), {{7}, {}, 0}},
    };
    for (const auto &[what, bytes, expected] : cases)
        for (size_t offset : {0, 1})
            EXPECT_EQ(walk(bytes, offset, 7), expected) << what << " at " << offset;
}

}  // namespace
