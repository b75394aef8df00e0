// The frame parser: ARP replies, IPv4 other than UDP, and DHCP to ports 67/68 feed
// the neighbour cache. Every read is bounded by the frame length.
#pragma once

#include <cstddef>
#include <cstdint>

// 0; -1 for a frame shorter than the Ethernet header.
int parse_packet(const uint8_t *frame, size_t length);
// Hex dump, 16 bytes per line.
int dump_packet(const uint8_t *frame, size_t length);
