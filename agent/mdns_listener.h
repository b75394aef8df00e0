// The passive mDNS listener: UDP 5353 on IPv4 and IPv6, joined to 224.0.0.251 and
// ff02::fb on the bridge, sharing the port with any responder on the box
// (SO_REUSEADDR and SO_REUSEPORT). It never sends.
#pragma once

#include <string>
#include <vector>

#include "core/unique_fd.h"
#include "mdns.h"

struct MdnsSockets {
    UniqueFd v4, v6;
};

// Both sockets on interface IFNAME (kernel name); a family that cannot be set up is
// left invalid and WHY says why.
MdnsSockets openMdnsSockets(const std::string &ifname, std::string &why);
// Reads one datagram from FD and appends its address records; a malformed,
// truncated or oversized one is dropped (false).
bool receiveMdns(int fd, std::vector<MdnsAddress> &out);
