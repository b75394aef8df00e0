// Routing-netlink datagrams of any content, walked as the sniffer walks what it reads.
// Where a packet socket can be opened (root), "lo" is monitored and the fake sysfs shows
// nas0_0 as its port, so that joins and leaves get past the master checks; elsewhere
// every join stops at the master check. An exact copy catches reads past the end.
#include <cstdint>
#include <vector>

#include "platform/fake/fake_platform.h"
#include "sniffer/link_events.h"
#include "sniffer/monitor_intf.h"
#include "sniffer/sniffer.h"

namespace {

// The seeds name lo's index as the master.
constexpr const char *kMaster = "lo";

void setUp() {
    fake::reset();
    fake::state().kernelFiles["/sys/class/net/nas0_0/upper_lo"] = "";
    setSnifferMonitorLogLevel(0);  // refusals would drown the fuzzer
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    [[maybe_unused]] static bool ready = (setUp(), true);
    if (!find_monitor_intf(kMaster)) add_monitor_intf(kMaster, nullptr);  // a leave removes it
    std::vector<uint8_t> bytes(data, data + size);
    process_nl_messages({bytes.data(), size});
    return 0;
}
