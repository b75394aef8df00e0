// The Wi-Fi authenticator's event channel: one text line per connection on a local
// stream socket; a station's departure takes its host offline at once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "hosts/lanhost.h"

inline constexpr int kHostapdEventBufSize = 256;

// Room for the two words of an event line, terminator included.
inline constexpr size_t kEventWordRoom = 16;
inline constexpr size_t kEventNameRoom = 256;

// "WORD NAME xx:xx:xx:xx:xx:xx" taken apart.
struct HostapdEvent {
    char word[kEventWordRoom];
    char name[kEventNameRoom];
    uint8_t mac[kMacLen];
};

// False unless the first word, the event name and all six MAC groups are present.
// Words longer than their room are cut to it; the rest of the word is skipped.
bool parseHostapdEvent(std::string_view text, HostapdEvent &event);

// Stores the listening descriptor in *FD and returns 0; -1 (and *FD untouched)
// when the socket cannot be set up.
int init_hostapd_action_sock(int *fd);
int set_socket_buffer_size(int fd);
// Accepts one connection and leaves its text (at most SIZE - 1 bytes) in BUFFER,
// which is empty when the peer sent nothing. Always 0.
int recv_hostapd_event(int fd, char *buffer, int size);
int process_hostapd_event(char *buffer);
// Drops the host's MAC from the bridge forwarding database of IFNAME.
int del_bridge_fdb(hostEntry *host, const char *ifname);
