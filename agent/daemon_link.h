// The agent's side of the daemon: inform queries and per-host commands over the
// control socket (each exchange bounded, so a stuck daemon holds the loop for a
// second at most), the host file read without waiting on its lock, and the control
// socket's identity, which changes when the daemon starts again.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "control/ctrl_msg.h"
#include "hosts/lanhost.h"

inline constexpr int kDaemonTimeoutMs = 1000;

struct SocketIdentity {
    ino_t inode = 0;
    int64_t changed = 0;  // ctime, nanoseconds
    bool operator==(const SocketIdentity &) const = default;
};

struct HostFileRead {
    std::vector<lanHostInfo_t> hosts;
    int64_t written = 0;  // mtime, Unix seconds
};

// One request and its reply; false when the daemon cannot be reached.
bool daemonExchange(const ctrlMsg_t &request, ctrlMsg_t &reply);
// Every pending report of inform query CMD; false when the daemon went away.
bool drainReports(uint32_t cmd, std::vector<lanHostInfo_t> &hosts);
// The control socket file's identity, nullopt when there is none.
std::optional<SocketIdentity> controlSocketIdentity();

// The host file when its mtime differs from LAST_WRITTEN; nullopt when unchanged,
// missing, or locked by its writer just now (tried again next second).
std::optional<HostFileRead> readHostFileIfNewer(int64_t lastWritten);

// Asks the daemon (its PID file's process) to rewrite the host file now, as SIGUSR2
// does, so that the agent's picture at start-up is not up to 30 s old. False when
// it may not (another user) or there is none; the next periodic write then serves.
bool askForFreshHostFile();

// A per-host text (brand or os) the daemon holds, and setting it. nullopt / false
// when the daemon refused (for instance no such host) or is unreachable.
std::optional<std::string> getHostText(uint32_t cmd, const uint8_t *mac);
bool setHostText(uint32_t cmd, const uint8_t *mac, std::string_view text);
