#include <algorithm>
#include <cstring>

#include "platform/fake/fake_platform.h"

namespace fake {

State &state() {
    static State current;
    return current;
}

void reset() {
    state() = State{};
    refreshPortTables();
}

void recordCommand(const std::string &line) {
    State &s = state();
    s.commands.push_back(line);
    if (s.onCommand) s.onCommand(line);
}

Mac mac(uint8_t a, uint8_t b, uint8_t c, uint8_t d, uint8_t e, uint8_t f) {
    return Mac{a, b, c, d, e, f};
}

void advanceSeconds(long seconds) {
    State &s = state();
    s.monotonic.tv_sec += seconds;
    s.wall += seconds;
    s.uptime += seconds;
}

wlStaInfo &addStation(const std::string &ifname, const Mac &mac) {
    auto &list = state().stations[ifname];
    if (list.empty()) list.push_back(wlStaInfo{});
    wlStaInfo &record = list.emplace_back();
    record.inUse = 1;
    record.flags = kStaAssociated;
    std::copy(mac.begin(), mac.end(), record.mac);
    state().interfaces[ifname].flags = 1;
    return record;
}

std::vector<uint8_t> wanChainRecord(uint8_t enable, uint8_t mode, uint32_t ports) {
    std::vector<uint8_t> record(kChainRecordSize, 0);
    record[kChainEnableOffset] = enable;
    record[kChainModeOffset] = mode;
    for (size_t byte = 0; byte < 4; ++byte)  // little-endian, as the store lays it out
        record[kChainPortMaskOffset + byte] = static_cast<uint8_t>(ports >> (8 * byte));
    return record;
}

}  // namespace fake
