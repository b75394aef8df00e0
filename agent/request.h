// The one line a subscriber sends: {} or {"since": N}. A tiny parser bounded by
// the bytes given; anything else is a bad request.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

// The longest request line the agent waits for; a longer one is dropped.
inline constexpr size_t kMaxRequestLine = 256;

struct SubscriberRequest {
    std::optional<uint64_t> since;
};

// LINE without its newline; blanks allowed between tokens. nullopt: not a request.
std::optional<SubscriberRequest> parseRequest(std::string_view line);
