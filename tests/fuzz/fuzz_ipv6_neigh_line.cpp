// One "ip -6 neigh" line of any content, as a view without a terminator. An
// accepted line goes on through the per-MAC update, against a small list that
// already holds a link-local and a global address.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "core/log.h"
#include "discovery/sources.h"

namespace {

constexpr uint8_t kLinkLocalMac[6] = {0x02, 0, 0, 0, 0, 0x01};
constexpr uint8_t kGlobalMac[6] = {0x02, 0, 0, 0, 0, 0x02};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string_view line(reinterpret_cast<const char *>(data), size);
    Ipv6NeighLine out{};
    if (!parseIpv6NeighLine(line, out)) return 0;
    if (strnlen(out.addr, sizeof out.addr) == sizeof out.addr ||
        strnlen(out.device, sizeof out.device) == sizeof out.device ||
        strnlen(out.lladdr, sizeof out.lladdr) == sizeof out.lladdr)
        std::abort();
    dbg_level = DBG_TRACE;  // the trace lines print the fuzzed address text
    uint8_t mac[6] = {};
    if (convertMacFormat(out.lladdr, mac) != 1) std::memcpy(mac, kLinkLocalMac, sizeof mac);
    ipv6_neigh *head = update_ipv6_neigh(kLinkLocalMac, "fe80::1", nullptr);
    head = update_ipv6_neigh(kGlobalMac, "2001:db8::2", head);
    head = update_ipv6_neigh(mac, out.addr, head);
    free_ipv6_neigh(&head);
    return 0;
}
