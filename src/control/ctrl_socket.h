// The control socket: one request message per connection, served on the main thread.
#pragma once

// Listening descriptor, -1 until msg_create_sockfd has succeeded.
int msgSockFd();

int msg_create_sockfd();
int msg_process_sockfd(int fd);
