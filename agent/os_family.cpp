#include "os_family.h"

namespace {

struct OptionRule {
    std::string_view options;  // option 55, exactly, in order
    OsFamily family;
    std::string_view source;
};

struct VendorRule {
    std::string_view prefix;  // of the vendor class (option 60)
    OsFamily family;
    std::string_view source;
};

// Option-55 lists are stable per DHCP client build; these are the ones that public
// DHCP fingerprint collections (fingerbank's, among others) list for each system
// and that packet captures of the systems show.
constexpr OptionRule kOptionRules[] = {
    {"1,3,6,15,31,33,43,44,46,47,119,121,249,252", OsFamily::Windows,
     "Windows 10 and 11 DHCP client (fingerprint collections, captures)"},
    {"1,15,3,6,44,46,47,31,33,121,249,43,252", OsFamily::Windows,
     "Windows 7 and 8 DHCP client (fingerprint collections)"},
    {"1,121,3,6,15,119,252,95,44,46", OsFamily::Macos,
     "macOS 10.x and later bootpd-era client (fingerprint collections, captures)"},
    {"1,121,3,6,15,119,252", OsFamily::Ios, "iOS 8 and later (fingerprint collections)"},
    {"1,3,6,15,26,28,51,58,59,43", OsFamily::Android,
     "Android 8 to 10 DhcpClient (AOSP source: its request list)"},
    {"1,3,6,15,26,28,51,58,59,43,114", OsFamily::Android,
     "Android 11 and later DhcpClient, with captive-portal option 114 (AOSP source)"},
    {"1,33,3,6,15,28,51,58,59", OsFamily::Android, "Android 4 and older, dhcpcd-based"},
    {"1,28,2,3,15,6,119,12,44,47,26,121,42", OsFamily::Linux,
     "ISC dhclient as Debian and Ubuntu configure it (dhclient.conf request line)"},
};

// Vendor classes that a client's DHCP software sends by default.
constexpr VendorRule kVendorRules[] = {
    {"MSFT 5.0", OsFamily::Windows, "Windows DHCP client since Windows 2000 (Microsoft docs)"},
    {"MSFT", OsFamily::Windows, "older Windows DHCP clients (Microsoft docs)"},
    {"android-dhcp-", OsFamily::Android, "Android DhcpClient: android-dhcp-VERSION (AOSP)"},
    {"dhcpcd-", OsFamily::Linux, "dhcpcd: dhcpcd-VERSION:OS-RELEASE:MACHINE (its manual)"},
    {"udhcp ", OsFamily::Linux, "busybox udhcpc: udhcp VERSION (its -V default)"},
};

}  // namespace

OsMatch classifyOs(const DhcpReport &report) {
    std::string options = optionListText(report.options);
    for (const OptionRule &rule : kOptionRules)
        if (!options.empty() && options == rule.options) return {rule.family, rule.source};
    for (const VendorRule &rule : kVendorRules)
        if (report.vendorClass.starts_with(rule.prefix)) return {rule.family, rule.source};
    return {};
}

std::string_view osFamilyName(OsFamily family) {
    switch (family) {
        case OsFamily::Other: return "other";
        case OsFamily::Windows: return "windows";
        case OsFamily::Macos: return "macos";
        case OsFamily::Ios: return "ios";
        case OsFamily::Android: return "android";
        case OsFamily::Linux: return "linux";
    }
    return "other";
}

std::string_view osFamilyLabel(OsFamily family) {
    switch (family) {
        case OsFamily::Other: return "";
        case OsFamily::Windows: return "Windows";
        case OsFamily::Macos: return "macOS";
        case OsFamily::Ios: return "iOS";
        case OsFamily::Android: return "Android";
        case OsFamily::Linux: return "Linux";
    }
    return "";
}
