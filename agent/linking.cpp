#include "linking.h"

#include <algorithm>

#include "args.h"

namespace {

constexpr uint8_t kLocallyAdministered = 0x02;
constexpr std::string_view kEthernetIdPrefix = "01:";  // hardware type 1, then the MAC

std::string lower(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(), [](unsigned char c) {
        return static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
    });
    return out;
}

// A client id made of the MAC itself changes with the MAC: it links nothing.
bool meaningfulClientId(const DhcpReport &report) {
    if (report.clientId.empty()) return false;
    return lower(report.clientId) != std::string(kEthernetIdPrefix) + formatMac(report.mac.data());
}

bool sameFingerprint(const DhcpReport &a, const DhcpReport &b) {
    return !a.options.empty() && a.options == b.options && a.vendorClass == b.vendorClass;
}

bool matches(const DhcpReport &report, const KnownDevice &device) {
    if (meaningfulClientId(report) && lower(report.clientId) == lower(device.dhcp.clientId))
        return true;
    return !report.hostname.empty() && lower(report.hostname) == lower(device.dhcp.hostname) &&
           sameFingerprint(report, device.dhcp);
}

}  // namespace

bool isRandomMac(std::span<const uint8_t, 6> mac) {
    return (mac[0] & kLocallyAdministered) != 0;
}

std::optional<std::string> findLink(const DhcpReport &report, int64_t now,
                                    std::span<const KnownDevice> known) {
    if (!isRandomMac(report.mac)) return std::nullopt;
    std::string self = formatMac(report.mac.data());
    const KnownDevice *best = nullptr;
    for (const KnownDevice &device : known) {
        bool recent = device.lastSeen <= now && now - device.lastSeen <= kLinkWindowSeconds;
        if (device.mac == self || !recent || !matches(report, device)) continue;
        if (!best || device.lastSeen > best->lastSeen) best = &device;
    }
    if (!best) return std::nullopt;
    std::string root = best->linkedTo.empty() ? best->mac : best->linkedTo;
    if (root == self) return std::nullopt;  // its own group, seen again under another MAC
    return root;
}
