// Reading hostrix-agent's event lines back into host records, so that watch
// prints the same lines whichever source it uses. Pure; bounded by the line.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "hosts/lanhost.h"

struct AgentEvent {
    std::string type;   // snapshot or event
    std::string event;  // new, left, changed
    lanHostInfo_t host{};
};

// The first value of KEY in LINE (a string unescaped, or a number's text).
std::optional<std::string> jsonField(std::string_view line, std::string_view key);
// The event of an agent line; nullopt when the line is not one the agent writes.
std::optional<AgentEvent> parseAgentLine(std::string_view line);
