// What a hostrixctl command ends with: an exit code and, on failure, the one
// message that says what went wrong and what to do.
#pragma once

#include <string>
#include <utility>

enum ExitCode : int {
    kExitOk = 0,
    kExitFailed = 1,       // the daemon reported failure (or has no such host)
    kExitUsage = 2,        // bad command line
    kExitUnreachable = 3,  // no daemon, or it broke off the exchange
};

struct Outcome {
    int code = kExitOk;
    std::string message;

    bool ok() const { return code == kExitOk; }
    static Outcome success() { return {}; }
    static Outcome failed(std::string text) { return {kExitFailed, std::move(text)}; }
    static Outcome usage(std::string text) { return {kExitUsage, std::move(text)}; }
    static Outcome unreachable(std::string text) { return {kExitUnreachable, std::move(text)}; }
};
