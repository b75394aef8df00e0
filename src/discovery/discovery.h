// The discovery cycle: walks the bridge forwarding database and keeps the table current.
#pragma once

#include <cstdint>

void __zvt_hostrix_update_from_arp();

// LAN port 1..4 of a bridge port name; 0 for a wireless name; 1 when nothing matches.
int get_lan_port_by_ifname(const char *name);
// SSID index of a wireless interface: 1..5 on the first radio, 6..10 on the second;
// 1 when nothing matches.
int get_ssid_index_by_ifname(const char *name);
