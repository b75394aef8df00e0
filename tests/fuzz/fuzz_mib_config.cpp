// Configuration file text of any content, as the store hands it to the parser.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "platform/linux/mib_config.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    MibConfig config;
    static const MibErrorSink discard = [](unsigned, std::string_view) {};
    parseMibConfig(std::string_view(reinterpret_cast<const char *>(data), size), config, discard);
    return 0;
}
