// Switch and forwarding-engine library: port ids and speed, Wi-Fi rates and modes,
// IPv6 neighbour solicitation and the per-host traffic counters. One backend defines it.
#pragma once

#include <cstdint>

int zvt_lan_LogID_get_by_if_name(const char *ifname);
int zvt_lan_phyID_get_by_if_name(const char *ifname);
int zvt_port_get_lan_phyID(int index);
int zv_port_link_get(int phy, int *link);
int zv_port_speedDuplex_get(int phy, int *speed, int *duplex);

// direction 0 transmit, 1 receive
int zvt_wlan_get_sta_rate(const void *station, int direction, char *text, int size);
int zvt_wlan_get_sta_wireless_mode(const char *ifname, const unsigned char *mac, int flag,
                                   char *text);

int zvt_ipv6_send_neigh_solicit(const char *ifname, const void *addr);

int zvt_fc_host_police_control_mib_counter_init();
int zvt_fc_update_lan_hpc_for_mib(void *entry, int on);
// Queues the host's entry into (on) or out of the counter set; the change reaches the
// counters with the next commit.
int zvt_update_lan_hpc_for_mib(void *entry, int on);
// Sends every queued change at once, at the end of a discovery cycle; -1 when that
// failed (the changes stay queued for the next commit).
int zvt_commit_lan_hpc();
// Starts a sampling pass (committing queued changes first).
int zvt_host_police_control_mib_counter_get_begin();
int zvt_host_police_control_mib_counter_get_end();
// pair = {bytes sent, bytes received}; 0 when the host is known to the counter set
int zvt_host_police_control_mib_counter_get(void *entry, uint64_t pair[2]);
int zvt_fc_host_police_control_mib_counter_get(void *entry, uint64_t pair[2]);
