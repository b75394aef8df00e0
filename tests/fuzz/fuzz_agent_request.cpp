// A subscriber's request line, as the agent reads it.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "request.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    parseRequest(std::string_view(reinterpret_cast<const char *>(data), size));
    return 0;
}
