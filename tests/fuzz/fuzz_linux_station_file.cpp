// Station file text of any content, as the directory source hands it to the parser.
#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "platform/linux/wifi_stations.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static std::array<wlStaInfo, kMaxStationsPerInterface> stations;
    parseStationFile(std::string_view(reinterpret_cast<const char *>(data), size), stations);
    return 0;
}
