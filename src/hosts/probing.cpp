#include "hosts/probing.h"

// Probing arrives with discovery; until then there is nobody to probe.
int sendARPRequest() { return 0; }
int sendIpv6NeighSolicit() { return 0; }
