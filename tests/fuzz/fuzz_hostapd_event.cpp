// Authenticator event text of any content, as the main loop hands it over: at most
// 255 characters and a terminator. A few online hosts (one per radio interface)
// keep the departure path reachable.
#include <cstdint>
#include <cstring>

#include "control/hostapd_event.h"
#include "core/log.h"
#include "hosts/host_table.h"
#include "platform/fake/fake_platform.h"

namespace {

constexpr uint8_t kStations[][kMacLen] = {
    {0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x5f},
    {0x02, 0x00, 0x00, 0x00, 0x00, 0x01},
    {0xfe, 0xdc, 0xba, 0x98, 0x76, 0x54},
};
constexpr const char *kIfNames[] = {"wlan0-vap1", "wlan1", "wlan0"};

void setUpTable() {
    fake::reset();
    initHostrixData();
    setMaxLanHostNum(kHostPoolSize);
    for (size_t i = 0; i < std::size(kStations); ++i) {
        hostEntry *entry = getFreeFromFreeList();
        std::memcpy(entry->lanHost.mac, kStations[i], kMacLen);
        std::strcpy(entry->lanHost.ifName, kIfNames[i]);
        addNewToHashList(entry, entry->lanHost.mac);
    }
    dbg_level = DBG_TRACE;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    [[maybe_unused]] static bool ready = (setUpTable(), true);
    // Online again for every input, and the fake's command record kept short.
    for (const uint8_t *mac : kStations) getHostrixByMac(mac)->valid = 1;
    fake::state().commands.clear();

    char text[kHostapdEventBufSize];
    size_t count = size < sizeof text - 1 ? size : sizeof text - 1;
    std::memcpy(text, data, count);
    text[count] = '\0';
    process_hostapd_event(text);
    return 0;
}
