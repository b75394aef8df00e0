// Debug FIFO text of any content, as the main loop hands it over: at most 255
// characters and a terminator.
#include <cstdint>
#include <cstring>

#include "core/settings.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    char text[256];
    size_t count = size < sizeof text - 1 ? size : sizeof text - 1;
    std::memcpy(text, data, count);
    text[count] = '\0';
    fifoCmdParse(text);
    return 0;
}
