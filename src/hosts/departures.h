// When each host last went offline, so that a forwarding entry the bridge has not
// refreshed since then cannot bring the host back: after a release, a station leave,
// a link-down or a block the bridge may keep the MAC for minutes. A device that sends
// anything after it left refreshes its entry and comes back as before.
#pragma once

#include <cstddef>
#include <cstdint>

// Bounded like the host table; the oldest departure makes room.
inline constexpr size_t kMaxDepartures = 256;

// MAC went offline at monotonic millisecond NOWMS.
void noteDeparture(const uint8_t *mac, int64_t nowMs);
// True when a forwarding entry AGEMS old was last refreshed before MAC went offline.
bool isStaleSinceDeparture(const uint8_t *mac, int64_t ageMs, int64_t nowMs);
void resetDepartures();
