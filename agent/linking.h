// Linking a private (random) MAC to a device seen before: a phone that picks a new
// MAC still sends the same DHCP client id, or the same host name with the same
// fingerprint. Pure: the caller holds the devices.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "dhcp_report.h"

inline constexpr int64_t kLinkWindowSeconds = 7 * 24 * 3600;

struct KnownDevice {
    std::string mac;       // aa:bb:cc:dd:ee:ff
    int64_t lastSeen = 0;  // Unix seconds
    std::string linkedTo;  // the device it is itself linked to, if any
    DhcpReport dhcp;       // its last fingerprint
};

// True when the locally administered bit is set (a private or made-up MAC).
bool isRandomMac(std::span<const uint8_t, 6> mac);

// The MAC that REPORT's device is linked to: the group's first MAC, from the
// most recently seen device that matches. nullopt for a MAC that is not random or
// matches none seen within the window.
std::optional<std::string> findLink(const DhcpReport &report, int64_t now,
                                    std::span<const KnownDevice> known);
