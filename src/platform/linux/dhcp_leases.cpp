// The DHCP server's leases as 100-byte records. For now there are none.
#include "platform/mib.h"

// The array is one malloc block; the daemon releases it with free.
int getDhcpClientLeasesDB(dhcp_lease **array, unsigned long *) {
    if (array) *array = nullptr;
    return 0;
}
