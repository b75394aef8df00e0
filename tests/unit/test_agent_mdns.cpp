// The mDNS decoder on hand-built packets: what it learns, and what it refuses.
#include <gtest/gtest.h>

#include "mdns.h"

namespace {

using Bytes = std::vector<uint8_t>;

// Header of a response with ANSWERS answer records and nothing else.
Bytes response(uint8_t answers, uint16_t flags = 0x8400) {
    return {0, 0,                                                  // id
            static_cast<uint8_t>(flags >> 8), static_cast<uint8_t>(flags),
            0, 0,                                                  // questions
            0, answers,                                            // answers
            0, 0, 0, 0};                                           // authority, additional
}

void append(Bytes &to, const Bytes &more) { to.insert(to.end(), more.begin(), more.end()); }

const Bytes kLaptopLocal = {6, 'l', 'a', 'p', 't', 'o', 'p', 5, 'l', 'o', 'c', 'a', 'l', 0};
// type A, class IN with the cache-flush bit, TTL 120, 4 bytes: 10.77.0.5
const Bytes kARecordTail = {0, 1, 0x80, 1, 0, 0, 0, 120, 0, 4, 10, 77, 0, 5};
// type AAAA, class IN, TTL 120, 16 bytes: fd77::5
const Bytes kAaaaTail = {0, 28, 0, 1, 0, 0, 0, 120, 0, 16, 0xfd, 0x77, 0, 0, 0, 0, 0, 0,
                         0,  0,  0, 0, 0, 0, 0, 5};

std::vector<MdnsAddress> parse(const Bytes &packet, bool expectOk = true) {
    std::vector<MdnsAddress> out;
    EXPECT_EQ(parseMdnsResponse(packet, out), expectOk);
    return out;
}

TEST(AgentMdns, LearnsAAndAaaaWithACompressedName) {
    Bytes packet = response(2);
    append(packet, kLaptopLocal);
    append(packet, kARecordTail);
    append(packet, {0xc0, 12});  // the same name: a pointer to offset 12
    append(packet, kAaaaTail);
    const std::vector<MdnsAddress> expected = {
        {"laptop", false, {10, 77, 0, 5}, 120},
        {"laptop", true, {0xfd, 0x77, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 5}, 120}};
    EXPECT_EQ(parse(packet), expected);
}

TEST(AgentMdns, DropsMalformedPackets) {
    struct Case {
        const char *what;
        Bytes tail;  // after a one-answer header
        uint16_t flags = 0x8400;
    };
    Bytes truncated = kLaptopLocal;
    append(truncated, Bytes(kARecordTail.begin(), kARecordTail.end() - 1));
    const Case cases[] = {
        {"a query", kLaptopLocal, 0x0000},
        {"a pointer to itself", {0xc0, 12}},
        {"a label, then a pointer back to it", {2, 'a', 'b', 0xc0, 12}},
        {"a pointer forwards", {0xc0, 14, 0, 0}},
        {"a pointer cut short", {0xc0}},
        {"a reserved label kind", {0x40, 'a', 0}},
        {"a label past the end", {9, 'a', 'b'}},
        {"record data past the end", truncated},
        {"no record at all", {}},
    };
    for (const Case &c : cases) {
        Bytes packet = response(1, c.flags);
        append(packet, c.tail);
        EXPECT_TRUE(parse(packet, false).empty()) << c.what;
    }
    EXPECT_FALSE(parse(Bytes(11, 0), false).size());
    Bytes huge = response(0);
    huge.resize(kMaxMdnsPacket + 1);
    parse(huge, false);
}

TEST(AgentMdns, ReadsAtMostABoundedNumberOfRecords) {
    Bytes packet = response(0xff);
    append(packet, kLaptopLocal);
    append(packet, kARecordTail);
    for (size_t i = 1; i < kMaxMdnsRecords + 10; ++i) {
        append(packet, {0xc0, 12});
        append(packet, kARecordTail);
    }
    EXPECT_EQ(parse(packet).size(), kMaxMdnsRecords);
}

}  // namespace
