#include "control/hostapd_event.h"

#include <cstring>

// The event channel arrives with the control interface; until then it stays absent.
int init_hostapd_action_sock(int * /*fd*/) { return -1; }

int recv_hostapd_event(int /*fd*/, char *buffer, int size) {
    std::memset(buffer, 0, static_cast<size_t>(size));
    return 0;
}

int process_hostapd_event(char * /*buffer*/) { return 0; }
