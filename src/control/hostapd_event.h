// The Wi-Fi authenticator's event channel: one text line per connection.
#pragma once

inline constexpr int kHostapdEventBufSize = 256;

int init_hostapd_action_sock(int *fd);
int recv_hostapd_event(int fd, char *buffer, int size);
int process_hostapd_event(char *buffer);
