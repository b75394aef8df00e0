// The hostrixctl commands. Each takes the parsed command line and returns how
// it ended; the caller prints the message and exits with the code.
#pragma once

#include <string>
#include <string_view>

#include "args.h"
#include "outcome.h"

Outcome runNew(const CommandLine &line);
Outcome runLeft(const CommandLine &line);
Outcome runChanged(const CommandLine &line);
Outcome runList(const CommandLine &line);
Outcome runWatch(const CommandLine &line);
Outcome runGet(const CommandLine &line);
Outcome runSet(const CommandLine &line);
Outcome runPortDown(const CommandLine &line);
Outcome runRelease(const CommandLine &line);
Outcome runLog(const CommandLine &line);
Outcome runHistory(const CommandLine &line);

// Helpers the command files share.
// Usage error unless LINE has exactly COUNT positional words; SYNOPSIS shows them.
Outcome expectArgs(const CommandLine &line, size_t count, std::string_view synopsis);
Outcome badMac(std::string_view text);

// Write TEXT (and a newline) to standard output, remembering the first failure.
void emitText(std::string_view text);
void emitLine(std::string_view text);
// Flushes standard output; false when that failed (errno says why).
bool flushOutput();
