// The daemon's fixed file locations. Every one of them (and the configuration file)
// is prefixed by $HOSTRIX_ROOT, so tests, the lab and unprivileged runs keep their
// files in a directory of their own. /proc and /sys are never prefixed.
#pragma once

#include <string_view>

enum class HostrixFile {
    ControlSocket,   // /var/run/.hostrix_msg
    HostapdSocket,   // /var/run/.hostapd_action_sock
    Fifo,            // /var/run/hostrix.fifo
    PidFile,         // /var/run/hostrix.pid
    HostInfo,        // /var/hostrix
    IgnoreIfnames,   // /var/run/.hostrix_ignore_ifnames
    FcLutList,       // /tmp/fc_lut_list
    Config,          // /etc/hostrix/mib.conf
};

// Absolute path of FILE under the current root; stable until pathsReset().
const char *hostrixPath(HostrixFile file);
// The unprefixed path, as the daemon's own messages name it.
std::string_view hostrixBasePath(HostrixFile file);
// Re-reads $HOSTRIX_ROOT (tests change it between cases).
void pathsReset();
