// The agent's own files under $HOSTRIX_ROOT, beside the daemon's: its socket for
// subscribers, the datagram socket the DHCP hook writes to, its settings and its
// history database. Header-only, so hostrixctl and the hooks share it.
//
// The sockets live in a folder of their own, so that an agent without root can
// be given it (systemd's RuntimeDirectory) where it could not write /var/run.
#pragma once

#include <cstdlib>
#include <string>
#include <string_view>

#include <sys/stat.h>

inline constexpr std::string_view kAgentSocketBase = "/var/run/hostrix-agent/agent.sock";
inline constexpr std::string_view kAgentDhcpSocketBase = "/var/run/hostrix-agent/dhcp.sock";
inline constexpr std::string_view kAgentConfigBase = "/etc/hostrix/agent.conf";
inline constexpr std::string_view kAgentHistoryBase = "/var/lib/hostrix/history.db";

// BASE under the current $HOSTRIX_ROOT (trailing slashes of the root dropped).
inline std::string agentPath(std::string_view base) {
    const char *root = std::getenv("HOSTRIX_ROOT");
    std::string prefix = root ? root : "";
    while (!prefix.empty() && prefix.back() == '/') prefix.pop_back();
    return prefix + std::string(base);
}

// Creates the folders on the way to PATH's file, as the daemon does for its own.
inline void makeParentFolders(const std::string &path) {
    for (size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1))
        mkdir(path.substr(0, slash).c_str(), 0755);
}
