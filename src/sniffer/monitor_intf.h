// The monitored interfaces: one packet socket per interface, with the kernel filter
// that lets through only ARP replies, DHCP to the server port and IGMP. The list and
// every record are guarded by the interface-list lock; operations whose names begin
// with "__" expect the caller to hold it, their plain wrappers take it.
#pragma once

#include <linux/filter.h>
#include <sys/queue.h>
#include <sys/select.h>

#include <array>
#include <cstddef>
#include <cstdint>

inline constexpr size_t kMonitorNameLen = 32;
// Start-up list elements must be shorter than this; member-port names may reach it.
inline constexpr size_t kMonitorListNameMax = 17;
inline constexpr const char *kMonitorPortPrefix = "nas0";
// Longer frames arrive cut to this size.
inline constexpr size_t kSnifferFrameBufferSize = 2048;

struct sd_intf {
    TAILQ_ENTRY(sd_intf) entries;
    int sock;                      // -1 while no socket is open
    uint32_t ifindex;              // never 0 in a listed record
    char ifname[kMonitorNameLen];  // at most 31 characters
    sd_intf *master;               // the monitored bridge this is a port of, or null
};

// Classic BPF: accept ARP replies for IPv4, IPv4 UDP to port 67 that is not a
// non-first fragment, and IGMP; drop everything else. Offsets assume no VLAN tag.
inline constexpr std::array<sock_filter, 17> kSnifferFilter = {{
    {0x28, 0, 0, 12},       // EtherType
    {0x15, 0, 4, 0x0806},   // ARP?
    {0x28, 0, 0, 16},       // ARP protocol type
    {0x15, 0, 12, 0x0800},  // for IPv4?
    {0x28, 0, 0, 20},       // ARP operation
    {0x15, 9, 10, 2},       // reply?
    {0x15, 0, 9, 0x0800},   // IPv4?
    {0x30, 0, 0, 23},       // IP protocol
    {0x15, 0, 5, 17},       // UDP?
    {0x28, 0, 0, 20},       // flags and fragment offset
    {0x45, 5, 0, 0x1FFF},   // a non-first fragment?
    {0xB1, 0, 0, 14},       // X = IP header length
    {0x48, 0, 0, 16},       // UDP destination port, half-word at X + 16
    {0x15, 1, 2, 67},       // to the DHCP server port?
    {0x15, 0, 1, 2},        // IGMP? (A still holds the protocol)
    {0x06, 0, 0, 0x40000},  // accept
    {0x06, 0, 0, 0},        // drop
}};

// A record in the list with that name; null on any failure (logged).
sd_intf *__add_monitor_intf(const char *ifname, const char *master);
sd_intf *add_monitor_intf(const char *ifname, const char *master);
// First record, in list order, whose master is MASTER (when given) or whose name is
// IFNAME (when given); null if none.
sd_intf *__find_monitor_intf(const char *ifname, const sd_intf *master);
sd_intf *find_monitor_intf(const char *ifname);
// Removes RECORD after every record whose master it is; 0.
int __del_monitor_intf(sd_intf *record);
int del_monitor_intf(sd_intf *record);
int del_all_monitor_intf();
// Adds MASTER's member ports whose names begin with PREFIX (all when null); the count.
int add_lower_monitor_intf(const char *master, const char *prefix);
// Puts every open socket into SET; the highest descriptor, or -1.
int set_monitor_sd_set(fd_set *set);
// Reads one frame from every ready socket and hands it to the parser; 0.
int check_monitor_sd_set(const fd_set *set);
int dump_monitor_intf();

// For the cancellation handler: releases the interface-list lock if the calling
// thread holds it.
void releaseMonitorListLockIfHeld();
