// Captured frames of any content, as the sniffer hands them to the parser: an exact
// copy, so that a read past the frame's end is caught. The neighbour cache is flushed
// now and then so that it stays as small as a real LAN's.
#include <cstdint>
#include <vector>

#include "platform/fake/fake_platform.h"
#include "sniffer/neighbor_cache.h"
#include "sniffer/packet_parser.h"
#include "sniffer/sniffer.h"

namespace {

constexpr unsigned kRunsPerFlush = 1000;

void setUp() {
    fake::reset();
    setSnifferMonitorLogLevel(kSnifferError);  // packet lines would drown the fuzzer
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    [[maybe_unused]] static bool ready = (setUp(), true);
    static unsigned runs = 0;
    std::vector<uint8_t> frame(data, data + size);
    parse_packet(frame.data(), size);
    if (++runs % kRunsPerFlush == 0) aging_neighbor_host(1);
    return 0;
}
