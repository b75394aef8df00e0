// One "/proc/net/arp" line of any content, as a view without a terminator; an
// accepted line must leave every field terminated within its bound.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "discovery/sources.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string_view line(reinterpret_cast<const char *>(data), size);
    ArpLine out{};
    if (!parseArpLine(line, out)) return 0;
    if (strnlen(out.ip, sizeof out.ip) == sizeof out.ip ||
        strnlen(out.mac, sizeof out.mac) == sizeof out.mac ||
        strnlen(out.device, sizeof out.device) == sizeof out.device)
        std::abort();
    return 0;
}
