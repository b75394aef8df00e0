// The agent's log: one line each on standard error, prefixed, LAN text escaped
// by the caller. The "once" form remembers its key until cleared, so that a
// condition that lasts is reported when it begins and when it ends, not every second.
#pragma once

#include <string>
#include <string_view>

void agentLog(const std::string &line);
// Logs LINE unless KEY is already reported; true when it was logged.
bool agentLogOnce(std::string_view key, const std::string &line);
// Forgets KEY; true when it had been reported.
bool agentLogClear(std::string_view key);
