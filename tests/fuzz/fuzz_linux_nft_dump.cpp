// Bytes of any content as one datagram of the kernel's answer to a set-element dump,
// as the counter sampling pass hands it to the decoder. The request's sequence number
// is taken from the first message, so that recorded dumps make useful seeds.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

#include "platform/linux/nft_counters.h"

namespace {
constexpr size_t kSequenceOffset = 8;  // in struct nlmsghdr
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    uint32_t sequence = 0;
    if (size >= kSequenceOffset + sizeof sequence)
        std::memcpy(&sequence, data + kSequenceOffset, sizeof sequence);
    std::vector<NftSetElement> elements;
    (void)decodeNftElementDump(std::span<const uint8_t>(data, size), sequence, elements);
    if (elements.size() > kMaxNftElements) __builtin_trap();
    (void)mergeNftElements(std::move(elements));
    return 0;
}
