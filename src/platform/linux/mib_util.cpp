// Clock synchronisation as the kernel reports it.
#include <sys/timex.h>

#include "platform/mib.h"

int isTimeSynchronized() {
    timex state{};  // modes 0: only read
    int result = adjtimex(&state);
    return result != -1 && result != TIME_ERROR && !(state.status & STA_UNSYNC) ? 1 : 0;
}
