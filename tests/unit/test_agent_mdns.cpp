// The mDNS decoder on hand-built packets: what it learns, and what it refuses.
#include <gtest/gtest.h>

#include "mdns.h"

namespace {

using Bytes = std::vector<uint8_t>;

// A response (FLAGS) with ANSWERS answer records and nothing else, then the bytes of TAILS.
Bytes response(uint8_t answers, const std::vector<Bytes> &tails = {}, uint8_t flags = 0x84) {
    Bytes packet = {0, 0, flags, 0, 0, 0, 0, answers, 0, 0, 0, 0};
    for (const Bytes &tail : tails) packet.insert(packet.end(), tail.begin(), tail.end());
    return packet;
}

const Bytes kLaptopLocal = {6, 'l', 'a', 'p', 't', 'o', 'p', 5, 'l', 'o', 'c', 'a', 'l', 0};
const Bytes kSameName = {0xc0, 12};  // a pointer to the name at offset 12
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

TEST(AgentMdns, LearnsAAndAaaaWithCompressedNamesUpToTheRecordBound) {
    const std::vector<MdnsAddress> expected = {
        {"laptop", false, {10, 77, 0, 5}, 120},
        {"laptop", true, {0xfd, 0x77, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 5}, 120}};
    EXPECT_EQ(parse(response(2, {kLaptopLocal, kARecordTail, kSameName, kAaaaTail})), expected);
    std::vector<Bytes> records = {kLaptopLocal, kARecordTail};
    for (size_t i = 1; i < kMaxMdnsRecords + 10; ++i)
        records.insert(records.end(), {kSameName, kARecordTail});
    EXPECT_EQ(parse(response(0xff, records)).size(), kMaxMdnsRecords);
}

TEST(AgentMdns, DropsMalformedPackets) {
    const Bytes truncated(kARecordTail.begin(), kARecordTail.end() - 1);
    const std::pair<const char *, Bytes> cases[] = {
        {"a query", response(1, {kLaptopLocal}, 0)},
        {"a pointer to itself", response(1, {kSameName})},
        {"a label, then a pointer back to it", response(1, {{2, 'a', 'b', 0xc0, 12}})},
        {"a pointer forwards", response(1, {{0xc0, 14, 0, 0}})},
        {"a pointer cut short", response(1, {{0xc0}})},
        {"a reserved label kind", response(1, {{0x40, 'a', 0}})},
        {"a label past the end", response(1, {{9, 'a', 'b'}})},
        {"record data past the end", response(1, {kLaptopLocal, truncated})},
        {"no record at all", response(1)},
        {"a header cut short", Bytes(11, 0)},
        {"too long", response(0, {Bytes(kMaxMdnsPacket + 1 - 12, 0)})},
    };
    for (const auto &[what, packet] : cases) EXPECT_TRUE(parse(packet, false).empty()) << what;
}

}  // namespace
