#include "core/log.h"

#include <cstdarg>

uint32_t dbg_level = 0;

void hostrixLog(const char *format, ...) {
    std::fputs("[Hostrix]:", stdout);
    va_list args;
    va_start(args, format);
    std::vfprintf(stdout, format, args);
    va_end(args);
    std::fflush(stdout);
}
