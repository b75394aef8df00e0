// Whole seconds of the monotonic clock, as the daemon stores its times.
#pragma once

#include <cstdint>

// 0 when the clock cannot be read; OK (if given) tells which.
int64_t monotonicSeconds(bool *ok = nullptr);
// Milliseconds of the monotonic clock; 0 when it cannot be read.
int64_t monotonicMilliseconds(bool *ok = nullptr);
