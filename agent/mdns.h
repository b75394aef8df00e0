// A bounded decoder of multicast DNS responses: the A and AAAA records for
// NAME.local in the answer and additional sections. It reads only the bytes given,
// follows compression pointers only backwards (so a loop cannot exist) and a few at
// most, and drops a packet that breaks any rule.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

inline constexpr size_t kMaxMdnsPacket = 9000;   // mDNS's own ceiling (RFC 6762, 17)
inline constexpr size_t kMaxMdnsRecords = 64;    // records read from one packet
inline constexpr size_t kMaxMdnsNameLabel = 63;

struct MdnsAddress {
    std::string name;  // NAME of NAME.local, printable ASCII
    bool ipv6 = false;
    std::array<uint8_t, 16> address{};  // IPv4 in the first four bytes
    uint32_t ttl = 0;

    bool operator==(const MdnsAddress &) const = default;
};

// Appends the address records of a response to OUT; false (OUT untouched) for a
// query, or a packet that is malformed or larger than kMaxMdnsPacket.
bool parseMdnsResponse(std::span<const uint8_t> packet, std::vector<MdnsAddress> &out);
