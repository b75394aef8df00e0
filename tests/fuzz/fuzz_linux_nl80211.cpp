// One received generic-netlink chunk of any content, given to the family-reply and
// station-dump decoders, and to the station decoder as bare attributes. The seeds use
// sequence 1 and family 0x1c.
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "platform/linux/nl80211.h"

namespace {
constexpr uint32_t kSeq = 1;
constexpr uint16_t kFamily = 0x1c;
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::span<const uint8_t> bytes(data, size);
    static std::array<wlStaInfo, 4> stations;  // small, so that the room runs out
    StationCollector collector{stations};
    (void)nl80211DecodeStationDump(bytes, kSeq, kFamily, collector);
    (void)nl80211DecodeFamilyReply(bytes, kSeq);
    wlStaInfo station{};
    (void)nl80211DecodeStation(bytes, station);
    return 0;
}
