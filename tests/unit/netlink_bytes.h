// Netlink messages and attributes laid out as the kernel sends them, for the decoder
// tests of the linux backend.
#pragma once

#include <linux/netlink.h>

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <vector>

namespace nlbytes {

using Bytes = std::vector<uint8_t>;

template <typename T>
Bytes raw(const T &value) {
    Bytes out(sizeof value);
    std::memcpy(out.data(), &value, sizeof value);
    return out;
}

inline Bytes join(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes &part : parts) out.insert(out.end(), part.begin(), part.end());
    return out;
}

// Route and generic attributes share this layout. The length counts the payload;
// the padding after it does not.
inline Bytes attr(int type, Bytes payload) {
    const nlattr header{static_cast<uint16_t>(NLA_HDRLEN + payload.size()),
                        static_cast<uint16_t>(type)};
    payload.resize(NLA_ALIGN(payload.size()));
    return join({raw(header), payload});
}

// An attribute holding VALUE's bytes as they lie in memory (host order).
template <typename T>
Bytes attrOf(int type, const T &value) {
    return attr(type, raw(value));
}

inline Bytes nest(int type, const Bytes &inner) {
    return attr(type | NLA_F_NESTED, inner);
}

// TEXT with its terminator, as the kernel sends names.
inline Bytes text(const char *value) {
    return Bytes(value, value + std::strlen(value) + 1);
}

inline Bytes message(uint16_t type, uint32_t seq, const Bytes &payload, uint16_t flags = 0) {
    const nlmsghdr header{static_cast<uint32_t>(NLMSG_HDRLEN + payload.size()), type, flags, seq,
                          0};
    return join({raw(header), payload});
}

}  // namespace nlbytes
