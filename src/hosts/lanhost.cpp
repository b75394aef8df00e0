#include "hosts/lanhost.h"

#include <cstdio>

void formatHostTime(char (&text)[kHostTextLen], time_t when) {
    struct tm local {};
    if (!localtime_r(&when, &local)) return;
    std::snprintf(text, sizeof text, "%d:%d:%d:%d:%d:%d", local.tm_year + 1900,
                  local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
}
