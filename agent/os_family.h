// The operating system family a DHCP fingerprint points to: a small rule table of
// option-55 lists (the parameter request list, in the client's order) and vendor
// classes. The exact list wins over the vendor class, which a client may set at
// will; nothing that matches gives "other".
#pragma once

#include <string_view>

#include "dhcp_report.h"

enum class OsFamily { Other, Windows, Macos, Ios, Android, Linux };

struct OsMatch {
    OsFamily family = OsFamily::Other;
    std::string_view rule;  // which rule matched, for the log; empty for none
};

OsMatch classifyOs(const DhcpReport &report);
std::string_view osFamilyName(OsFamily family);
// The text the daemon's os field gets; empty for Other (nothing is written).
std::string_view osFamilyLabel(OsFamily family);
