// The hooks' one write to a daemon socket. The programs that run a hook wait for
// it, so it connects, sends and closes within a short bound, and a daemon that is
// not running is no failure: the hook stays silent and exits 0 either way.
#pragma once

#include <cstddef>

#include "core/paths.h"

// Bounds the connect (a stuck daemon's full backlog) and the send, each.
inline constexpr int kHookTimeoutMs = 40;

// Sends SIZE bytes to the UNIX stream socket FILE and closes. On a failure other
// than "nothing listens there" prints one line, starting with HOOK, to stderr.
void sendToDaemon(const char *hook, HostrixFile file, const void *bytes, size_t size);
