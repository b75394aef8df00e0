// Active probing of quiet hosts: ARP requests on the bridge, IPv6 neighbour solicitations.
#pragma once

int sendARPRequest();
int sendIpv6NeighSolicit();
