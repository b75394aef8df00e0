// The subscriber side: the request line and the event ring's replay.
#include <gtest/gtest.h>

#include "device.h"
#include "event_ring.h"
#include "request.h"

namespace {

struct RequestCase {
    const char *line;
    bool valid;
    std::optional<uint64_t> since;
};

TEST(AgentRequest, AcceptsOnlyTheTwoForms) {
    const RequestCase cases[] = {
        {"{}", true, std::nullopt},
        {" { } \r", true, std::nullopt},
        {"{\"since\": 42}", true, 42},
        {"{\"since\":18446744073709551615}", true, UINT64_MAX},
        {"{\"since\":18446744073709551616}", false, {}},  // overflow
        {"{\"since\": -1}", false, {}},
        {"{\"since\": }", false, {}},
        {"{\"since\": 1} x", false, {}},
        {"{\"until\": 1}", false, {}},
        {"{", false, {}},
        {"", false, {}},
        {"GET / HTTP/1.0", false, {}},
    };
    for (const RequestCase &c : cases) {
        std::optional<SubscriberRequest> got = parseRequest(c.line);
        EXPECT_TRUE(got ? c.valid && got->since == c.since : !c.valid) << c.line;
    }
    EXPECT_FALSE(parseRequest("{" + std::string(kMaxRequestLine, ' ') + "}"));
}

// The lines a subscriber asking since SINCE gets, or {"snapshot"}.
std::vector<std::string> replay(const EventRing &ring, uint64_t since) {
    auto lines = ring.after(since);
    if (!lines) return {"snapshot"};
    std::vector<std::string> out;
    for (const std::string *line : *lines) out.push_back(*line);
    return out;
}

using Lines = std::vector<std::string>;

TEST(AgentEventRing, ReplaysWhatFollowsSinceWhileItHoldsIt) {
    EventRing ring(100, 4);
    EXPECT_EQ(ring.lastSeq(), 99u);
    EXPECT_EQ(replay(ring, 99), Lines{});  // nothing yet, nothing missed
    for (int i = 0; i < 6; ++i) EXPECT_EQ(ring.push("e" + std::to_string(i)), 100u + i);
    // 100 and 101 have been overwritten: 102..105 remain.
    EXPECT_EQ(replay(ring, 101), (Lines{"e2", "e3", "e4", "e5"}));
    EXPECT_EQ(replay(ring, 103), (Lines{"e4", "e5"}));
    EXPECT_EQ(replay(ring, 105), Lines{});
    EXPECT_EQ(replay(ring, 100), Lines{"snapshot"});  // 101 is lost
    EXPECT_EQ(replay(ring, 106), Lines{"snapshot"});  // ahead: another run's number
    EXPECT_EQ(replay(ring, UINT64_MAX), Lines{"snapshot"});
    EXPECT_EQ(replay(ring, 0), Lines{"snapshot"});
}

}  // namespace
