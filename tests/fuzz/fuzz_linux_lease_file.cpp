// Lease file text of any content, as the lease reader hands it to the parser, then
// anchored twice: once fresh, once later with the file rewritten.
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "platform/linux/dhcp_leases.h"

namespace {
constexpr time_t kNow = 1'700'000'000;  // so that both expired and running leases occur
constexpr int64_t kMono = 5000;
constexpr int64_t kLater = 90'000;  // past every short lease's end
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static std::array<LeaseLine, kMaxDhcpLeases> lines;
    size_t count =
        parseDnsmasqLeases(std::string_view(reinterpret_cast<const char *>(data), size), lines);
    std::span<LeaseLine> leases(lines.data(), count);
    LeaseAnchors anchors;
    anchors.update(leases, kNow, kMono, false);
    anchors.update(leases, kNow - 86'400, kLater, true);
    return 0;
}
