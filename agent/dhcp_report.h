// What the DHCP hook tells the agent about a client, as dnsmasq handed it to the
// hook: one datagram of "key=value" lines (mac, hostname, client_id, vendor_class,
// options). The text comes from the LAN: every field is bounded here and escaped
// wherever it is shown. Shared by the hook (format) and the agent (parse).
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

inline constexpr size_t kMaxDhcpReport = 1400;   // one datagram
inline constexpr size_t kMaxDhcpField = 255;     // a DHCP option's longest value
inline constexpr size_t kMaxRequestedOptions = 255;

struct DhcpReport {
    std::array<uint8_t, 6> mac{};
    std::string hostname;     // DNSMASQ_SUPPLIED_HOSTNAME
    std::string clientId;     // DNSMASQ_CLIENT_ID (hex octets with colons)
    std::string vendorClass;  // DNSMASQ_VENDOR_CLASS
    std::vector<uint8_t> options;  // DNSMASQ_REQUESTED_OPTIONS, in the client's order

    bool operator==(const DhcpReport &) const = default;
};

// The datagram for REPORT; a field is cut at its first line break and at kMaxDhcpField.
std::string formatDhcpReport(const DhcpReport &report);
// nullopt when there is no valid mac line or a line is malformed.
std::optional<DhcpReport> parseDhcpReport(std::string_view datagram);
// "1,3,6" for the options.
std::string optionListText(const std::vector<uint8_t> &options);
