// Helpers shared by the daemon's local UNIX-domain stream sockets.
#pragma once

#include "core/paths.h"
#include "core/unique_fd.h"

// Removes whatever is at FILE's path and binds FD there (zeroed address, full
// sockaddr_un length). -1 with errno set on failure, ENAMETOOLONG when the
// prefixed path does not fit.
int bindUnixPath(int fd, HostrixFile file);

// Makes PATH (a socket or the FIFO) usable by root alone, mode 0600, or with a
// socket group by that group too, mode 0660. -1 when the mode could not be set.
int restrictToDaemon(const char *path);

// Bounds each receive on an accepted connection, so that a peer that connects and
// says nothing cannot hold the main loop for longer than SECONDS.
int setReceiveTimeout(int fd, int seconds);

// How a failed SO_REUSEADDR is reported: the two channels print it differently.
enum class ReuseAddrMessage { WithReason, Plain };

// A listening stream socket at FILE: socket, SO_REUSEADDR, bind, restricted mode,
// listen. At the
// first failure prints that step's message (unprefixed, ungated) and returns an
// invalid descriptor.
UniqueFd listenAtPath(HostrixFile file, ReuseAddrMessage reuseMessage);
