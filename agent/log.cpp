#include "log.h"

#include <cstdio>
#include <set>

namespace {

std::set<std::string, std::less<>> &reported() {
    static std::set<std::string, std::less<>> keys;
    return keys;
}

}  // namespace

void agentLog(const std::string &line) {
    std::fprintf(stderr, "hostrix-agent: %s\n", line.c_str());
    std::fflush(stderr);
}

bool agentLogOnce(std::string_view key, const std::string &line) {
    if (!reported().emplace(key).second) return false;
    agentLog(line);
    return true;
}

bool agentLogClear(std::string_view key) {
    auto at = reported().find(key);
    if (at == reported().end()) return false;
    reported().erase(at);
    return true;
}
