// The control socket: one request message per connection, served on the main thread.
#pragma once

// Listening descriptor, -1 until msg_create_sockfd has succeeded.
int msgSockFd();

int msg_create_sockfd();
// Closes the listening socket (tests only; the daemon keeps it until exit).
void msg_close_sockfd();
// Serves one connection of the listening socket FD: one request, at most one
// reply. Always 0.
int msg_process_sockfd(int fd);
