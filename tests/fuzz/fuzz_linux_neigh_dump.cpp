// A datagram of an IPv6 or IPv4 neighbour dump, or an acknowledgement, of any content,
// as the kernel might hand it to the native commands. The seeds use sequence number 1.
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "platform/linux/neigh_dump.h"
#include "platform/linux/netlink_route.h"

namespace {
constexpr uint32_t kFuzzSequence = 1;
constexpr int kMaxErrno = 4095;
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::span<const uint8_t> datagram(data, size);
    const auto name = [](int ifindex) { return "if" + std::to_string(ifindex); };
    for (uint8_t family : {uint8_t{AF_INET6}, uint8_t{AF_INET}}) {
        std::vector<NeighEntry> entries;
        (void)decodeNeighMessages(datagram, family, kFuzzSequence, entries);
        if (entries.size() > kMaxNeighEntries) __builtin_trap();
        const std::string text = formatNeighListing(entries, name);
        size_t lines = 0;
        for (char c : text) lines += c == '\n' ? 1 : 0;
        if (lines > entries.size()) __builtin_trap();
    }
    const int ack = decodeRouteAck(datagram, kFuzzSequence);
    if (ack < kNoRouteAck || ack > kMaxErrno) __builtin_trap();
    return 0;
}
