#include "hosts/departures.h"

#include <cstring>
#include <unordered_map>

#include "core/settings.h"
#include "hosts/lanhost.h"

namespace {

constexpr int64_t kMsPerSecond = 1000;
// The news of a departure comes a little after the device's last frame (a release
// goes through the DHCP server and its script), and the bridge states an entry's
// age in whole ticks, cut short: an entry this much younger than the departure is
// still the one from before it.
constexpr int64_t kDepartureSlackMs = 1000;

std::unordered_map<uint64_t, int64_t> departures;  // MAC -> monotonic ms

// Entries older than the forwarding-entry age limit no longer matter: discovery
// ignores any entry that old, and any younger one is fresher than the departure.
void forgetExpired(int64_t nowMs) {
    const int64_t horizon = static_cast<int64_t>(NET_INFO_FDB_IDLE_MAX) * kMsPerSecond;
    std::erase_if(departures, [&](const auto &item) { return nowMs - item.second > horizon; });
}

void forgetOldest() {
    auto oldest = departures.begin();
    for (auto it = departures.begin(); it != departures.end(); ++it)
        if (it->second < oldest->second) oldest = it;
    if (oldest != departures.end()) departures.erase(oldest);
}

}  // namespace

void noteDeparture(const uint8_t *mac, int64_t nowMs) {
    if (departures.size() >= kMaxDepartures && !departures.contains(macKey(mac))) {
        forgetExpired(nowMs);
        if (departures.size() >= kMaxDepartures) forgetOldest();
    }
    try {
        departures[macKey(mac)] = nowMs;
    } catch (...) {
        // Without the note the host may come back once from a stale entry; nothing else.
    }
}

bool isStaleSinceDeparture(const uint8_t *mac, int64_t ageMs, int64_t nowMs) {
    auto it = departures.find(macKey(mac));
    if (it == departures.end()) return false;
    if (ageMs + kDepartureSlackMs >= nowMs - it->second) return true;
    departures.erase(it);  // the device spoke after it left
    return false;
}

void resetDepartures() {
    departures.clear();
}
