// What the agent knows of one device (one MAC): the daemon's last record while it
// is online, and what the agent adds (vendor, fingerprint, names, history, link).
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "dhcp_report.h"
#include "hosts/lanhost.h"
#include "os_family.h"

inline constexpr int64_t kNameLifetimeSeconds = 24 * 3600;

using Mac = std::array<uint8_t, 6>;

struct DeviceName {
    std::string name;
    std::string_view source;  // dhcp, mdns, netbios, lease, set
    bool operator==(const DeviceName &) const = default;
};

struct Device {
    Mac mac{};
    std::string macText;
    bool online = false;
    bool haveRecord = false;
    lanHostInfo_t record{};
    int64_t firstSeen = 0, lastSeen = 0;  // Unix seconds
    int64_t confirmedAt = 0;  // when the daemon last vouched that it is online
    int64_t leftAt = 0;       // when the daemon last reported it gone
    int64_t sessionFrom = 0;  // open session's start; 0: none
    std::string vendor;
    bool randomMac = false;
    OsFamily os = OsFamily::Other;
    std::optional<DhcpReport> dhcp;
    int64_t dhcpSeen = 0;
    std::string linkedTo;
    std::string mdnsName;
    int64_t mdnsHeard = 0;
    bool brandTried = false, osTried = false;  // this session, toward the daemon
    // Stored name and its source, from an earlier run (the devices table).
    std::string storedName, storedNameSource;
};

// The device's names, best first: the name its DHCP client supplied, the daemon's
// (from the lease or set by a client), then mDNS, which counts only while fresh.
std::vector<DeviceName> deviceNames(const Device &device, int64_t now);

// JSON arrays of names with their sources, and of texts.
std::string namesJson(const std::vector<DeviceName> &names);
std::string textArray(const std::vector<std::string> &items);

// The host object of the subscriber protocol.
std::string hostJson(const Device &device, std::string_view kernelIfName,
                     const std::vector<std::string> &linkedMacs, int64_t now);

// Fields whose change makes a "changed" event when the agent learns them from the
// host file rather than a change report (rates and counters move all the time).
bool sameIdentity(const lanHostInfo_t &a, const lanHostInfo_t &b);
// The whole record but what every report refreshes (online time, rates, counters)
// and the report flags: a change report that differs in nothing else tells nothing.
bool sameReported(const lanHostInfo_t &a, const lanHostInfo_t &b);
