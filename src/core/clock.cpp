#include "core/clock.h"

#include "platform/os.h"

int64_t monotonicSeconds(bool *ok) {
    timespec now{};
    bool read = os_clock_monotonic(&now) == 0;
    if (ok) *ok = read;
    return read ? static_cast<int64_t>(now.tv_sec) : 0;
}

int64_t monotonicMilliseconds(bool *ok) {
    constexpr int64_t kMsPerSecond = 1000;
    constexpr long kNsPerMs = 1000000;
    timespec now{};
    bool read = os_clock_monotonic(&now) == 0;
    if (ok) *ok = read;
    return read ? static_cast<int64_t>(now.tv_sec) * kMsPerSecond + now.tv_nsec / kNsPerMs : 0;
}
