// A datagram of a bridge neighbour dump, of any content, as the kernel might hand it to
// the forwarding-database reader. The seeds use bridge index 2 and sequence number 1.
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "platform/linux/bridge_fdb.h"

namespace {
constexpr int kFuzzBridgeIndex = 2;
constexpr uint32_t kFuzzSequence = 1;
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::vector<FdbRecord> records;
    (void)decodeBridgeFdbMessages(std::span(data, size), kFuzzBridgeIndex, kFuzzSequence, records);
    if (records.size() > kMaxFdbRecords) __builtin_trap();
    return 0;
}
