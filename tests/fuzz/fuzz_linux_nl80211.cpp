// One received generic-netlink chunk of any content, given to the family-reply,
// interface-reply and station-dump decoders, and to the interface and station
// decoders as bare attributes. The input's length picks the interface's band. The
// seeds use sequence 1 and family 0x1c.
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "platform/linux/nl80211.h"

namespace {
constexpr uint32_t kSeq = 1;
constexpr uint16_t kFamily = 0x1c;
constexpr std::array<uint32_t, 4> kFrequenciesMhz = {0, 2412, 5180, 5955};
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::span<const uint8_t> bytes(data, size);
    const uint32_t mhz = kFrequenciesMhz[size % kFrequenciesMhz.size()];
    static std::array<wlStaInfo, 4> stations;  // small, so that the room runs out
    StationCollector collector{stations, mhz};
    (void)nl80211DecodeStationDump(bytes, kSeq, kFamily, collector);
    (void)nl80211DecodeFamilyReply(bytes, kSeq);
    Nl80211Interface iface;
    (void)nl80211DecodeInterfaceReply(bytes, kSeq, kFamily, iface);
    (void)nl80211DecodeInterface(bytes, iface);
    wlStaInfo station{};
    (void)nl80211DecodeStation(bytes, mhz, station);
    return 0;
}
