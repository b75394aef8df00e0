// Kernel netlink sockets for the backend's short-lived requests (bridge dump, nl80211).
#pragma once

#include "core/unique_fd.h"

// A close-on-exec raw netlink socket of PROTOCOL, bound to a port id other than the
// process id, with a receive timeout of a second so that a silent kernel cannot stall
// the caller; invalid when the socket cannot be made.
UniqueFd openKernelNetlinkSocket(int protocol);
