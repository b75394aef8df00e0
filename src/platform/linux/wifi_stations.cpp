// Wi-Fi stations of one interface. For now there are none.
#include "platform/mib.h"
#include "platform/zvt.h"

// Leaves the caller's zeroed buffer as it is: no stations.
int getWlStaInfo(const char *, void *) {
    return 0;
}

int zvt_wlan_get_sta_wireless_mode(const char *, const unsigned char *, int, char *text) {
    if (text) text[0] = '\0';
    return 0;
}
