#include "config.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>

#include "agent_paths.h"

namespace {

std::string_view trim(std::string_view text) {
    constexpr std::string_view kBlanks = " \t\r";
    size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

bool parseSwitch(std::string_view value, bool &out) {
    if (value == "on" || value == "yes" || value == "1") return out = true, true;
    if (value == "off" || value == "no" || value == "0") return out = false, true;
    return false;
}

// Empty when KEY = VALUE was taken, else what is wrong with it.
std::string applyKey(std::string_view key, std::string_view value, AgentConfig &config) {
    if (key == "socket_group") return config.socketGroup = value, "";
    if (key == "history_db") return config.historyDb = value, "";
    if (key == "oui_file") return config.ouiFile = value, "";
    if (key == "mdns_interface") return config.mdnsInterface = value, "";
    if (key == "http_listen") return config.httpListen = value, "";
    if (key == "mqtt_url") return config.mqttUrl = value, "";
    if (key == "mqtt_user") return config.mqttUser = value, "";
    if (key == "mqtt_password") return config.mqttPassword = value, "";
    if (key == "agent_sets")
        return parseSwitch(value, config.agentSets) ? "" : "agent_sets takes on or off";
    if (key == "mdns") return parseSwitch(value, config.mdns) ? "" : "mdns takes on or off";
    return "unknown key '" + std::string(key) + "'";
}

std::string checkLine(std::string_view line, AgentConfig &config) {
    if (line.size() > kMaxConfigLine)
        return "longer than " + std::to_string(kMaxConfigLine) + " bytes";
    line = trim(line.substr(0, line.find('#')));
    if (line.empty()) return "";
    size_t equals = line.find('=');
    if (equals == std::string_view::npos) return "expected 'key = value'";
    std::string_view key = trim(line.substr(0, equals));
    std::string_view value = trim(line.substr(equals + 1));
    if (key.empty() || value.empty()) return "expected 'key = value'";
    return applyKey(key, value, config);
}

}  // namespace

AgentConfig parseAgentConfig(std::string_view text, std::vector<std::string> &problems) {
    AgentConfig config;
    size_t lineNo = 0;
    while (!text.empty()) {
        size_t end = text.find('\n');
        std::string_view line = text.substr(0, end);
        text = end == std::string_view::npos ? std::string_view{} : text.substr(end + 1);
        std::string problem = checkLine(line, config);
        ++lineNo;
        if (!problem.empty()) problems.push_back("line " + std::to_string(lineNo) + ": " + problem);
    }
    return config;
}

AgentConfig readAgentConfig(const std::string &path, std::vector<std::string> &problems) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        if (errno != ENOENT) problems.push_back("cannot read " + path + ": " + std::strerror(errno));
        return AgentConfig{};
    }
    std::string text(kMaxConfigBytes + 1, '\0');
    in.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<size_t>(in.gcount()));
    if (text.size() > kMaxConfigBytes) {
        problems.push_back(path + " is larger than " + std::to_string(kMaxConfigBytes) +
                           " bytes; only its beginning is read");
        text.resize(kMaxConfigBytes);
    }
    return parseAgentConfig(text, problems);
}

std::string historyDbPath(const AgentConfig &config) {
    return config.historyDb.empty() ? agentPath(kAgentHistoryBase) : config.historyDb;
}
