// Bridge port notifications from routing netlink: ports that join a monitored bridge
// at run time are monitored when their names say they are repeater or WAN links, and
// ports that leave are dropped.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

inline constexpr size_t kNetlinkBufferSize = 2048;

// A routing-netlink socket on the link group, bound to the process id; or -1.
int init_netlink_socket();
// One read of link events, acted upon; 0, or -1 when nothing could be read.
int read_nl_event(int fd);
// Acts on every message in BYTES as read_nl_event does after its read, walking no
// further than BYTES reach.
void process_nl_messages(std::span<const uint8_t> bytes);
