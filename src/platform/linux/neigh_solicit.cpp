// IPv6 neighbour solicitation on the bridge. Not there yet: "not available".
#include "platform/zvt.h"

int zvt_ipv6_send_neigh_solicit(const char *, const void *) {
    return -1;
}
