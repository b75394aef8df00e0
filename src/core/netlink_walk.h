// Walks the netlink messages and attributes of received bytes with libmnl, for the
// linux backend's decoders and the sniffer's link events. A walk reads only the span it
// is given: libmnl checks each header's length against the bytes left before anything
// past the header is read.
#pragma once

#include <libmnl/libmnl.h>
#include <linux/netlink.h>

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

namespace netlink {

using Bytes = std::span<const uint8_t>;

// libmnl reads headers in place through struct pointers, so the bytes must be aligned
// as the kernel aligns them: WALK gets BYTES as they are when they are, else a copy.
template <typename Walk>
auto onAligned(Bytes bytes, Walk walk) {
    if (reinterpret_cast<uintptr_t>(bytes.data()) % alignof(nlmsghdr) == 0) return walk(bytes);
    std::vector<uint32_t> copy(bytes.size() / sizeof(uint32_t) + 1);
    std::memcpy(copy.data(), bytes.data(), bytes.size());
    return walk(Bytes(reinterpret_cast<const uint8_t *>(copy.data()), bytes.size()));
}

// libmnl hands back non-const pointers into the bytes walked; they are only read.
inline Bytes payloadOf(const nlmsghdr *message) {
    return {static_cast<const uint8_t *>(mnl_nlmsg_get_payload(message)),
            mnl_nlmsg_get_payload_len(message)};
}

inline Bytes payloadOf(const nlattr *attr) {
    return {static_cast<const uint8_t *>(mnl_attr_get_payload(attr)),
            mnl_attr_get_payload_len(attr)};
}

// Hands EACH every whole message of BYTES while it returns true. The result is the
// count of bytes left where the walk met no whole message: 0 when it reached the end
// or EACH stopped it. A message's padding may be missing at the end.
template <typename Each>
size_t forEachMessage(Bytes bytes, Each each) {
    return onAligned(bytes, [&](Bytes aligned) -> size_t {
        if (aligned.size() > INT_MAX) return aligned.size();
        int rest = static_cast<int>(aligned.size());
        // mnl_nlmsg_ok compares the length as a signed int: one with its top bit set
        // would pass.
        for (const auto *message = reinterpret_cast<const nlmsghdr *>(aligned.data());
             mnl_nlmsg_ok(message, rest) && message->nlmsg_len <= static_cast<unsigned>(rest);
             message = mnl_nlmsg_next(message, &rest))
            if (!each(message)) return 0;
        return rest > 0 ? static_cast<size_t>(rest) : 0;
    });
}

// The same for the attributes that fill BYTES, e.g. a message's after its fixed header
// or a nested attribute's payload.
template <typename Each>
size_t forEachAttribute(Bytes bytes, Each each) {
    return onAligned(bytes, [&](Bytes aligned) -> size_t {
        if (aligned.size() > INT_MAX) return aligned.size();
        int rest = static_cast<int>(aligned.size());
        for (const auto *attr = reinterpret_cast<const nlattr *>(aligned.data());
             mnl_attr_ok(attr, rest);
             rest -= static_cast<int>(MNL_ALIGN(attr->nla_len)), attr = mnl_attr_next(attr))
            if (!each(attr)) return 0;
        return rest > 0 ? static_cast<size_t>(rest) : 0;
    });
}

}  // namespace netlink
