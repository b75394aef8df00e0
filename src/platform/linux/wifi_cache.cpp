// The per-interface cache of station modes and SSIDs.
#include "platform/linux/wifi_cache.h"

#include <algorithm>
#include <cstring>

namespace {

// TEXT into a NUL-terminated array of N bytes, cut to N - 1.
template <size_t N>
void copyText(std::string_view text, char (&out)[N]) {
    size_t length = std::min(text.size(), N - 1);
    std::memcpy(out, text.data(), length);
    out[length] = '\0';
}

template <size_t N>
std::string_view textOf(const char (&text)[N]) {
    return std::string_view(text, strnlen(text, N));
}

}  // namespace

size_t WifiCache::indexOf(std::string_view ifname) const {
    if (ifname.empty() || ifname.size() > kMibMaxIfNameBytes) return entries_.size();
    for (size_t i = 0; i < entries_.size(); ++i)
        if (textOf(entries_[i].name) == ifname) return i;
    return entries_.size();
}

const WifiCache::Entry *WifiCache::find(std::string_view ifname) const {
    size_t index = indexOf(ifname);
    return index < entries_.size() ? &entries_[index] : nullptr;
}

WifiCache::Entry &WifiCache::claim(std::string_view ifname, int64_t nowMs) {
    size_t index = indexOf(ifname);
    if (index == entries_.size()) index = evictable();
    Entry &entry = entries_[index];
    if (textOf(entry.name) != ifname) {
        entry = Entry{};
        copyText(ifname, entry.name);
    }
    entry.usedMs = nowMs;
    return entry;
}

// A free entry, else the one put longest ago.
size_t WifiCache::evictable() const {
    auto rank = [](const Entry &entry) { return std::pair(entry.name[0] != '\0', entry.usedMs); };
    auto oldest =
        std::min_element(entries_.begin(), entries_.end(),
                         [&](const Entry &a, const Entry &b) { return rank(a) < rank(b); });
    return static_cast<size_t>(oldest - entries_.begin());
}

void WifiCache::putStations(std::string_view ifname, std::span<const wlStaInfo> records,
                            int64_t nowMs) {
    Entry &entry = claim(ifname, nowMs);
    entry.stationCount = 0;
    for (const wlStaInfo &record : records) {
        if (record.inUse == 0 || entry.stationCount == entry.stations.size()) continue;
        Station &station = entry.stations[entry.stationCount++];
        std::memcpy(station.mac, record.mac, sizeof station.mac);
        copyText(textOf(record.mode), station.mode);
    }
}

std::optional<std::string_view> WifiCache::modeOf(std::string_view ifname,
                                                  const uint8_t *mac) const {
    const Entry *entry = find(ifname);
    if (!entry || !mac) return std::nullopt;
    for (size_t i = 0; i < entry->stationCount; ++i) {
        const Station &station = entry->stations[i];
        if (std::memcmp(station.mac, mac, sizeof station.mac) == 0) return textOf(station.mode);
    }
    return std::nullopt;
}

void WifiCache::putSsid(std::string_view ifname, std::string_view ssid, int64_t nowMs) {
    Entry &entry = claim(ifname, nowMs);
    entry.haveSsid = true;
    entry.ssidMs = nowMs;
    copyText(ssid, entry.ssid);
}

std::optional<std::string_view> WifiCache::ssidOf(std::string_view ifname, int64_t nowMs) const {
    const Entry *entry = find(ifname);
    if (!entry || !entry->haveSsid) return std::nullopt;
    if (nowMs < entry->ssidMs || nowMs - entry->ssidMs >= kWifiSsidLifetimeMs) return std::nullopt;
    return textOf(entry->ssid);
}
