// agent.conf: "key = value" lines, "#" comments. A missing file keeps the defaults;
// a bad line is reported with its number and skipped, so one typo never stops the
// agent. Shared with hostrixctl, which reads history_db from it.
#pragma once

#include <string>
#include <string_view>
#include <vector>

inline constexpr size_t kMaxConfigBytes = 64 * 1024;
inline constexpr size_t kMaxConfigLine = 1024;

struct AgentConfig {
    std::string socketGroup;    // empty: the sockets are 0600
    std::string historyDb;      // empty: $HOSTRIX_ROOT/var/lib/hostrix/history.db
    std::string ouiFile;        // empty: hostrix-oui.bin beside the agent's binary
    std::string mdnsInterface;  // empty: the kernel's name for br0 (mib.conf ifname.br0)
    bool agentSets = true;      // brand and os written to the daemon where it holds OTHER
    bool mdns = true;
    std::string httpListen = "127.0.0.1:8089";  // the web page and /metrics; "off": none
    std::string mqttUrl;        // empty: nothing is published to Home Assistant
    std::string mqttUser, mqttPassword;
};

// Problems come as "line N: what is wrong".
AgentConfig parseAgentConfig(std::string_view text, std::vector<std::string> &problems);
// The file at PATH; an unreadable file other than a missing one is a problem too.
AgentConfig readAgentConfig(const std::string &path, std::vector<std::string> &problems);
// history_db of the configuration at its usual place, or the default path.
std::string historyDbPath(const AgentConfig &config);
