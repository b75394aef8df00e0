// The DHCP server's lease file (dnsmasq format) turned into 100-byte lease records.
// The parser is pure: it reads only the text it is given, so tests and the fuzzer
// drive it without a file or a clock.
//
// Lines: "EXPIRY MAC IPV4 HOSTNAME CLIENTID". EXPIRY is the wall-clock second the
// lease ends, 0 for a lease without end; HOSTNAME "*" means none. The "duid" line
// and the IPv6 leases after it do not parse as IPv4 leases and are skipped, as is
// every other malformed line.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <span>
#include <string_view>

#include "platform/mib.h"

// Leases beyond this many are left out; a home gateway's pool is far smaller.
inline constexpr size_t kMaxDhcpLeases = 1024;
// Only this much of the lease file is read (whole lines of it).
inline constexpr size_t kMaxLeaseFileBytes = size_t{512} * 1024;
// Remaining time reported for a lease without end. It stays positive even when read
// as a signed 32-bit value, and any value above 60 seconds means "valid".
inline constexpr uint32_t kInfiniteLeaseSeconds = INT32_MAX;

// Fills OUT from one line (without its newline); false when the line is no IPv4 lease.
// An overlong host name is dropped (the record gets none); the lease itself is kept.
bool parseDnsmasqLeaseLine(std::string_view line, time_t now, dhcp_lease &out);

// Fills OUT with the leases of TEXT in file order, at most OUT.size(); returns the count.
size_t parseDnsmasqLeases(std::string_view text, time_t now, std::span<dhcp_lease> out);
