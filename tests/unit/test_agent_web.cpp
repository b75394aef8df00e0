// The web server's pure parts: what a client may send (Last-Event-ID, the listen
// setting) and what Prometheus reads (label values, the series bound, /proc).
#include <gtest/gtest.h>
#include <netinet/in.h>

#include "web_text.h"

namespace {

TEST(AgentWebEventId, OnlyPlainDecimalsThatFit) {
    const std::pair<const char *, std::optional<uint64_t>> cases[] = {
        {"1795595851000001", 1795595851000001}, {"18446744073709551615", UINT64_MAX},
        {"18446744073709551616", {}},   // overflow
        {"000000000000000000001", {}},  // longer than any number
        {"", {}}, {"-1", {}}, {" 7", {}}, {"7x", {}},
    };
    for (const auto &[text, want] : cases) EXPECT_EQ(parseLastEventId(text), want) << text;
    // A stray line break would end the event early and let its rest pose as a field.
    EXPECT_EQ(sseMessage(1, "{}\ndata: y\r"), "id: 1\ndata: {} data: y \n\n");
}

TEST(AgentWebListen, NumericAddressAndPortOnly) {
    const std::pair<const char *, int> cases[] = {  // family, 0: refused
        {"127.0.0.1:8089", AF_INET}, {"0.0.0.0:80", AF_INET},  {"[::1]:8089", AF_INET6},
        {"[::]:65535", AF_INET6},    {"::1:8089", 0},           {"localhost:8089", 0},
        {"127.0.0.1:0", 0},          {"127.0.0.1:65536", 0},    {"127.0.0.1:80x", 0},
        {"127.0.0.1", 0},            {"127.0.0.1:", 0},         {"[::1:8089", 0},
    };
    for (const auto &[text, family] : cases) {  // the port's byte order is the lab's web test's
        std::optional<ListenAddress> got = parseListenAddress(text);
        EXPECT_EQ(got ? got->addr.ss_family : 0, family) << text;
    }
}

TEST(AgentWebMetrics, LabelValuesCannotBreakTheFormat) {
    const std::pair<std::string, std::string> cases[] = {
        {R"(a\b "hi")", R"(a\\b \"hi\")"},
        {"two\nlines", R"(two\nlines)"},
        {"caf\xc3\xa9\x01\x7f", "caf????"},  // only ASCII: valid UTF-8 whatever came
        {std::string(100, 'n'), std::string(kMaxLabelBytes, 'n')},
    };
    for (const auto &[value, want] : cases) EXPECT_EQ(metricLabel(value), want) << value;
}

TEST(AgentWebMetrics, TrafficSeriesAreBoundedAndLabelled) {
    std::vector<HostTraffic> hosts(kMaxMetricHosts + 10, {"0a:00:00:00:00:01", "n\"x", 5, 7});
    const std::string text = metricsText(hosts.size(), hosts, {{"new", 3}}, {});
    auto count = [&](const std::string &line) {
        size_t n = 0;
        for (size_t at = text.find(line); at != std::string::npos; at = text.find(line, at + 1))
            ++n;
        return n;
    };
    const std::string labels = "{mac=\"0a:00:00:00:00:01\",name=\"n\\\"x\"} ";
    EXPECT_EQ(count("\nhostrix_host_receive_bytes_total" + labels + "5\n"), kMaxMetricHosts);
    EXPECT_EQ(count("\nhostrix_host_transmit_bytes_total" + labels + "7\n"), kMaxMetricHosts);
}

TEST(AgentWebProcess, StatFieldsCountFromTheLastParenthesis) {
    // pid (comm) state ppid pgrp session tty tpgid flags minflt cminflt majflt cmajflt
    // utime stime cutime cstime priority nice threads itrealvalue starttime vsize rss
    std::string stat = "77 (a) b) c) S 1 77 77 0 -1 4194560 100 0 0 0 "
                       "250 50 0 0 20 0 1 0 1000 9000000 300 18446744073709551615\n";
    std::optional<ProcessFigures> got = parseProcStat(stat, 100, 4096, 1000.0);
    ASSERT_TRUE(got);
    EXPECT_EQ(std::tuple(got->cpuSeconds, got->residentBytes, got->startTimeSeconds),
              std::tuple(3.0, uint64_t{300 * 4096}, 1010.0));
    EXPECT_FALSE(parseProcStat("77 (a) S 1 2 3", 100, 4096, 0));
    EXPECT_FALSE(parseProcStat("no parenthesis", 100, 4096, 0));
}

}  // namespace
