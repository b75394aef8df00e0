// The DHCP server's lease file (dnsmasq format) turned into 100-byte lease records.
// Two pure steps, so tests and the fuzzer drive them without a file or a clock: the
// parser reads only the text it is given; the anchoring step turns each lease's end
// into remaining seconds from wall and monotonic times passed in, so that a step of
// the wall clock, of any size and either way, moves no lease.
//
// Lines: "END MAC IPV4 HOSTNAME CLIENTID". END is 0 for a lease without end; else a
// normal server build writes the wall-clock second the lease ends, and a build for
// boxes without a real-time clock writes the lease's length in seconds. HOSTNAME "*"
// means none. The "duid" line and the IPv6 leases after it do not parse as IPv4
// leases and are skipped, as is every other malformed line.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <span>
#include <string_view>
#include <vector>

#include "platform/mib.h"

// Leases beyond this many are left out; a home gateway's pool is far smaller.
inline constexpr size_t kMaxDhcpLeases = 1024;
// Only this much of the lease file is read (whole lines of it).
inline constexpr size_t kMaxLeaseFileBytes = size_t{512} * 1024;
// Remaining time reported for a lease without end. It stays positive even when read
// as a signed 32-bit value, and any value above 60 seconds means "valid".
inline constexpr uint32_t kInfiniteLeaseSeconds = INT32_MAX;

// END values below 2000-01-01 are lengths, the rest expiry times. No lease is
// granted for 30 years, and a clock that reads before 2000 is one that was never
// set since boot (it counts from 1970); such a box's expiry taken as a length errs
// toward a lease that lasts too long, never toward a false release.
inline constexpr uint64_t kLeaseEpochFloor = 946'684'800;

enum class LeaseEndKind : uint8_t { None, Expiry, Length };

struct LeaseLine {
    dhcp_lease record{};  // leaseTime stays 0 until the anchoring step
    LeaseEndKind endKind = LeaseEndKind::None;
    uint64_t end = 0;      // wall-clock second or seconds of length, by endKind
    uint64_t textKey = 0;  // the line's text hashed: a changed line is a new grant
};

// Fills OUT from one line (without its newline); false when the line is no IPv4 lease.
// An overlong host name is dropped (the record gets none); the lease itself is kept.
bool parseDnsmasqLeaseLine(std::string_view line, LeaseLine &out);

// Fills OUT with the leases of TEXT in file order, at most OUT.size(); returns the count.
size_t parseDnsmasqLeases(std::string_view text, std::span<LeaseLine> out);

// Each lease's remaining time counted on the monotonic clock from the read that first
// saw its line: remaining-at-anchor (expiry minus wall time then, or the length) minus
// the monotonic seconds since, floored at 0. Holds the anchors of the latest read only.
class LeaseAnchors {
   public:
    // Sets each record's leaseTime (network order) at wall time WALL and monotonic
    // second MONO. REWRITTEN: the file was written since the last call. A renewal
    // leaves a length line's text as it was, so only the rewrite can show it; length
    // lines then count from now (expiry lines never re-read the wall clock).
    void update(std::span<LeaseLine> leases, time_t wall, int64_t mono, bool rewritten);
    size_t size() const { return anchors_.size(); }

   private:
    struct Anchor {
        uint64_t key;
        uint32_t remaining;  // seconds left at SINCE
        int64_t since;       // monotonic second of the anchoring read
    };
    Anchor anchorFor(const LeaseLine &lease, time_t wall, int64_t mono, bool rewritten) const;
    static uint32_t remainingNow(const Anchor &anchor, LeaseEndKind kind, int64_t mono);
    std::vector<Anchor> anchors_;  // sorted by key; at most one read's lines
};
