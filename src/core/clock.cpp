#include "core/clock.h"

#include "platform/os.h"

int64_t monotonicSeconds(bool *ok) {
    timespec now{};
    bool read = os_clock_monotonic(&now) == 0;
    if (ok) *ok = read;
    return read ? static_cast<int64_t>(now.tv_sec) : 0;
}
