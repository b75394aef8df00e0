// Lease file text of any content, as the lease reader hands it to the parser.
#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "platform/linux/dhcp_leases.h"

namespace {
constexpr time_t kNow = 1'700'000'000;  // so that both expired and running leases occur
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static std::array<dhcp_lease, kMaxDhcpLeases> leases;
    parseDnsmasqLeases(std::string_view(reinterpret_cast<const char *>(data), size), kNow, leases);
    return 0;
}
