// The agent's mDNS decoder on any bytes: it must stay inside them and end.
#include <cstddef>
#include <cstdint>
#include <span>

#include "mdns.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::vector<MdnsAddress> out;
    parseMdnsResponse(std::span(data, size), out);
    return 0;
}
