// What the backend keeps of each Wi-Fi interface between its station reads: the
// stations' MACs and modes from the interface's last read, and its SSID. The daemon
// reads each interface's stations once per cycle and then asks per host, so those
// questions are answered from here instead of from the driver again.
//
// Bounded: a fixed number of interfaces (the least recently refreshed one gives way)
// and the stations one read can give. Pure: the caller passes the time.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "platform/linux/mib_config.h"
#include "platform/mib.h"

// Two radios with a root and four virtual access points each, and room for more.
inline constexpr size_t kMaxCachedWifiInterfaces = 16;
inline constexpr size_t kMaxCachedStations = kMaxStaNum - 1;
// An SSID asked of the kernel serves the rest of its discovery cycle, which is far
// shorter than the three seconds between cycles.
inline constexpr int64_t kWifiSsidLifetimeMs = 1000;

class WifiCache {
   public:
    // IFNAME's stations become the records of RECORDS that are in use.
    void putStations(std::string_view ifname, std::span<const wlStaInfo> records, int64_t nowMs);
    // The mode of MAC on IFNAME at its last read; nullopt when it was not there.
    std::optional<std::string_view> modeOf(std::string_view ifname, const uint8_t *mac) const;

    // IFNAME's SSID as of NOWMS; empty when it has none.
    void putSsid(std::string_view ifname, std::string_view ssid, int64_t nowMs);
    // IFNAME's SSID if it was put less than kWifiSsidLifetimeMs before NOWMS (empty
    // when it had none); nullopt when it has to be asked again. The view lives until
    // the next put.
    std::optional<std::string_view> ssidOf(std::string_view ifname, int64_t nowMs) const;

   private:
    struct Station {
        uint8_t mac[6];
        char mode[sizeof wlStaInfo::mode];
    };
    struct Entry {
        char name[kMibMaxIfNameBytes + 1] = {};  // empty: a free entry
        int64_t usedMs = 0;                      // the last put, for eviction
        size_t stationCount = 0;
        std::array<Station, kMaxCachedStations> stations{};
        bool haveSsid = false;
        int64_t ssidMs = 0;
        char ssid[kMibMaxSsidBytes + 1] = {};
    };

    size_t indexOf(std::string_view ifname) const;  // entries_.size() when absent
    const Entry *find(std::string_view ifname) const;
    size_t evictable() const;
    // IFNAME's entry, taking a free or the least recently used one when it has none.
    Entry &claim(std::string_view ifname, int64_t nowMs);

    std::array<Entry, kMaxCachedWifiInterfaces> entries_{};
};
