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
inline constexpr int kFileRetryInterval = 1;  // after a write a reader's lock held off
inline constexpr int kIpv6ProbeInterval = 30;
inline constexpr size_t kFifoBufSize = 256;

// Pending-signal bits: 1 << the signal's number on x86 and ARM (signalHandler maps
// them on other machines). Handlers only set bits; the loop clears them.
extern std::atomic<uint32_t> sigFlags;

inline constexpr uint32_t SIG_BIT_RELOAD = 1u << 10;     // SIGUSR1
inline constexpr uint32_t SIG_BIT_REFRESH = 1u << 12;    // SIGUSR2
inline constexpr uint32_t SIG_BIT_DUMP = 1u << 1;        // SIGHUP
inline constexpr uint32_t SIG_BIT_TERMINATE = 1u << 15;  // SIGTERM

struct MainLoopState {
    UniqueFd authFd;
    UniqueFd fifoFd;
    UniqueFd signalWakeFd;  // read end of the pipe the signal handler writes to
    int64_t nextTick1 = 0;
    int64_t nextTick30 = 0;
    int32_t nextFileWrite = 0;
    bool waitArmed = false;
    int64_t waitDeadlineMs = 0;  // monotonic; when the current 3 s wait runs down
    AppliedSettings applied;
    char eventBuf[256] = {};
    char fifoBuf[kFifoBufSize] = {};
};

// Sets the signal's bit and wakes the loop's wait.
void signalHandler(int signo);
// The pipe that wakes the wait on a signal; -1 when it cannot be made (signals are
// then seen at the next pass).
int openSignalWake(MainLoopState &state);
void drainSignalWake(MainLoopState &state);
// Stops the handler writing to the pipe and closes it.
void closeSignalWake(MainLoopState &state);
void log_pid();
int createHostrixFifo();

// Start-up in order; -1 when the control socket cannot be created.
int hostrixStart(MainLoopState &state);
// Signal work of one pass; false once SIGTERM ends the loop.
bool handleSignalWork(MainLoopState &state);
// Signal work repeated while new signals arrive during it (a few rounds at most);
// false once SIGTERM ends the loop.
bool handlePendingSignals(MainLoopState &state);
// A skipped host-file write is tried again at the next 1 s tick.
void scheduleFileRetry(MainLoopState &state, int64_t now);
// Milliseconds left of the current wait at NOWMS, armed afresh once the last one ran
// down, so events do not delay the duties.
int64_t remainingWaitMs(MainLoopState &state, int64_t nowMs);
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
