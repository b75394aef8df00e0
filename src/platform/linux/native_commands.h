// The command lines the daemon issues for its own work, carried out without a shell or
// any other program: neighbour listing and deletes over rtnetlink, the forwarding
// engine's snapshot and its search, the Wi-Fi off-state query. A line is recognised
// only when it has exactly one of the known shapes (a trailing newline allowed), so
// anything with more shell syntax still goes to /bin/sh; "commands = shell" in
// mib.conf sends every line there. Main thread only (it reads the settings).
#pragma once

#include <optional>
#include <string>
#include <string_view>

enum class NativeKind {
    Ipv6NeighList,    // ip -6 neigh
    ArpDelete,        // [/bin/]arp -d IPV4
    Ipv6NeighDelete,  // /bin/ip -6 neigh del IPV6 dev IF
    BridgeFdbDelete,  // bridge fdb del MAC dev IF vlan 1 master
    FcSnapshot,       // cat /proc/fc/sw_dump/l2 > PATH
    FcSearch,         // cat PATH | grep -A 1 "MAC"
    WlanFuncoff       // iwpriv IF get_mib func_off | tail | awk | sed
};

// The variable fields of a recognised line, as views into it.
struct NativeCommand {
    NativeKind kind{};
    std::string_view address;  // IPv4 or IPv6 text
    std::string_view ifname;   // a gateway interface name
    std::string_view mac;      // "xx:xx:xx:xx:xx:xx"
    std::string_view path;
};

std::optional<NativeCommand> recogniseCommand(std::string_view line);

struct NativeResult {
    int error = 0;       // 0, or the errno of what failed
    std::string output;  // what the command would have written to its standard output
};

NativeResult runNativeCommand(const NativeCommand &command);

// Carries LINE out natively when it is recognised and the settings allow it; false
// when it is for the shell.
bool runNativeIfKnown(const char *line, NativeResult &result);

// Writes the output where the shell's command would have: to standard output.
void printNativeOutput(const NativeResult &result);

// What `grep -A 1 PATTERN` prints for TEXT: each line holding PATTERN and the line
// after it, "--" between groups that do not follow each other.
std::string grepWithNextLine(std::string_view text, std::string_view pattern);
