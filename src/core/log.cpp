#include "core/log.h"

#include <cstdarg>

uint32_t dbg_level = 0;

namespace {

__attribute__((format(printf, 2, 0))) void printFlushed(const char *prefix, const char *format,
                                                     va_list args) {
    std::fputs(prefix, stdout);
    std::vfprintf(stdout, format, args);
    std::fflush(stdout);
}

}  // namespace

void hostrixLog(const char *format, ...) {
    va_list args;
    va_start(args, format);
    printFlushed("[Hostrix]:", format, args);
    va_end(args);
}

void logPlain(const char *format, ...) {
    va_list args;
    va_start(args, format);
    printFlushed("", format, args);
    va_end(args);
}
