// The daemon's life: start-up, the select loop with its periodic duties, signal
// work and shutdown. Everything that touches the host table runs on this thread.
#pragma once

#include <sys/select.h>

#include <atomic>
#include <cstdint>

#include "core/settings.h"
#include "core/unique_fd.h"

inline constexpr int kLoopTimeoutSec = 3;
inline constexpr int kFileWriteInterval = 30;
inline constexpr int kIpv6ProbeInterval = 30;
inline constexpr size_t kFifoBufSize = 256;

// Pending-signal bits: 1 << signo. Handlers only set bits; the loop clears them.
extern std::atomic<uint32_t> sigFlags;

inline constexpr uint32_t SIG_BIT_RELOAD = 1u << 10;     // SIGUSR1
inline constexpr uint32_t SIG_BIT_REFRESH = 1u << 12;    // SIGUSR2
inline constexpr uint32_t SIG_BIT_DUMP = 1u << 1;        // SIGHUP
inline constexpr uint32_t SIG_BIT_TERMINATE = 1u << 15;  // SIGTERM

struct MainLoopState {
    UniqueFd authFd;
    UniqueFd fifoFd;
    int64_t nextTick1 = 0;
    int64_t nextTick30 = 0;
    int32_t nextFileWrite = 0;
    timeval timeout{};
    AppliedSettings applied;
    char eventBuf[256] = {};
    char fifoBuf[kFifoBufSize] = {};
};

void signalHandler(int signo);
void log_pid();
int createHostrixFifo();

// Start-up in order; -1 when the control socket cannot be created.
int hostrixStart(MainLoopState &state);
// Signal work of one pass; false once SIGTERM ends the loop.
bool handleSignalWork(MainLoopState &state);
// Re-arms the wait only once it has run down, so events do not delay the duties.
void rearmTimeout(timeval &timeout);
// Fills SET with the watched descriptors; returns the count to pass to select.
int buildReadSet(const MainLoopState &state, fd_set &set);
// The periodic duties of a wait that ended by timeout.
void runPeriodicDuties(MainLoopState &state);
// One readable descriptor's work, in the fixed order.
void serveReadable(MainLoopState &state, const fd_set &set);
void readFifoCommand(MainLoopState &state);
// One pass of the loop; false once the loop is to end.
bool runLoopPass(MainLoopState &state);
void hostrixShutdown(MainLoopState &state);
int hostrixMain();
