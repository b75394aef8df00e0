// The subscriber side: the request line and the event ring's replay.
#include <gtest/gtest.h>

#include "device.h"
#include "event_ring.h"
#include "request.h"

namespace {

using Lines = std::vector<std::string>;
const std::optional<uint64_t> kNo;  // no since, or no valid request

TEST(AgentRequest, AcceptsOnlyTheTwoForms) {
    const std::tuple<std::string, bool, std::optional<uint64_t>> cases[] = {
        {"{}", true, kNo},
        {" { } \r", true, kNo},
        {"{\"since\": 42}", true, 42},
        {"{\"since\":18446744073709551615}", true, UINT64_MAX},
        {"{\"since\":18446744073709551616}", false, kNo},  // overflow
        {"{\"since\": -1}", false, kNo},
        {"{\"since\": }", false, kNo},
        {"{\"since\": 1} x", false, kNo},
        {"{\"until\": 1}", false, kNo},
        {"{", false, kNo},
        {"", false, kNo},
        {"GET / HTTP/1.0", false, kNo},
        {"{" + std::string(kMaxRequestLine, ' ') + "}", false, kNo},
    };
    for (const auto &[line, valid, since] : cases) {
        std::optional<SubscriberRequest> got = parseRequest(line);
        EXPECT_EQ(got ? std::tuple(true, got->since) : std::tuple(false, kNo), std::tuple(valid, since))
            << line;
    }
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
