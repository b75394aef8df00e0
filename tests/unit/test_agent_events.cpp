// The subscriber side: the request line and the event ring's replay.
#include <gtest/gtest.h>

#include "device.h"
#include "event_ring.h"
#include "request.h"

namespace {

using Lines = std::vector<std::string>;
TEST(AgentRequest, AcceptsOnlyTheTwoForms) {
    const std::pair<const char *, std::optional<uint64_t>> accepted[] = {
        {"{}", {}},
        {" { } \r", {}},
        {"{\"since\": 42}", 42},
        {"{\"since\":18446744073709551615}", UINT64_MAX}};
    for (const auto &[line, since] : accepted) {
        std::optional<SubscriberRequest> got = parseRequest(line);
        EXPECT_TRUE(got && got->since == since) << line;
    }
    const std::string refused[] = {"{\"since\":18446744073709551616}",  // overflow
                                   "{\"since\": -1}",
                                   "{\"since\": }",
                                   "{\"since\": 1} x",
                                   "{\"until\": 1}",
                                   "{",
                                   "",
                                   "GET / HTTP/1.0",
                                   "{" + std::string(kMaxRequestLine, ' ') + "}"};
    for (const std::string &line : refused) EXPECT_FALSE(parseRequest(line)) << line;
}

// The lines a subscriber asking since SINCE gets, or {"snapshot"}.
Lines replay(const EventRing &ring, uint64_t since) {
    auto lines = ring.after(since);
    if (!lines) return {"snapshot"};
    Lines out;
    for (const std::string *line : *lines) out.push_back(*line);
    return out;
}

TEST(AgentEventRing, ReplaysWhatFollowsSinceWhileItHoldsIt) {
    EventRing ring(100, 4);
    EXPECT_EQ(ring.lastSeq(), 99u);
    EXPECT_EQ(replay(ring, 99), Lines{});  // nothing yet, nothing missed
    for (int i = 0; i < 6; ++i) EXPECT_EQ(ring.push("e" + std::to_string(i)), 100u + i);
    // 100 and 101 have been overwritten: 102..105 remain.
    EXPECT_EQ(replay(ring, 101), (Lines{"e2", "e3", "e4", "e5"}));
    EXPECT_EQ(replay(ring, 103), (Lines{"e4", "e5"}));
    EXPECT_EQ(replay(ring, 105), Lines{});
    // 101 is lost; 106 is ahead: another run's number.
    for (uint64_t since : {uint64_t{100}, uint64_t{106}, UINT64_MAX, uint64_t{0}})
        EXPECT_EQ(replay(ring, since), Lines{"snapshot"}) << since;
}

}  // namespace
