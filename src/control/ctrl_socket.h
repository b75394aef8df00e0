// The control socket: one request message per connection, served on the main thread.
#pragma once

#include <sys/select.h>

#include <cstddef>
#include <cstdint>

// Listening descriptor, -1 until msg_create_sockfd has succeeded.
int msgSockFd();

int msg_create_sockfd();
// Closes the listening socket (tests only; the daemon keeps it until exit).
void msg_close_sockfd();
// Serves one connection of the listening socket FD: one request, at most one
// reply. A connection whose request has not come yet waits aside (below). Always 0.
int msg_process_sockfd(int fd);

// Accepted connections whose request has not come yet. The loop watches them with its
// other descriptors, so a client that connects and says nothing holds no one up. Each
// waits at most kConnWaitMs; when every slot is taken the oldest gives way.
inline constexpr size_t kMaxWaitingConns = 16;
inline constexpr int64_t kConnWaitMs = 1000;
// Adds the waiting connections to SET, raising HIGHEST to the largest descriptor.
void ctrlWaitingAddToSet(fd_set &set, int &highest);
// Serves each waiting connection that SET reports readable.
void ctrlServeWaiting(const fd_set &set);
// Closes the connections that have waited kConnWaitMs by NOWMS (monotonic).
void ctrlDropStaleWaiting(int64_t nowMs);
size_t ctrlWaitingCount();
