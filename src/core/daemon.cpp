#include "core/daemon.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>

#include "control/ctrl_socket.h"
#include "control/host_file.h"
#include "control/hostapd_event.h"
#include "control/unix_socket.h"
#include "core/clock.h"
#include "core/log.h"
#include "core/paths.h"
#include "discovery/discovery.h"
#include "hosts/host_table.h"
#include "hosts/liveness.h"
#include "hosts/probing.h"
#include "platform/os.h"
#include "platform/zvt.h"
#include "sniffer/sniffer.h"
#include "traffic/bandwidth.h"

std::atomic<uint32_t> sigFlags{0};

namespace {

// Root alone (or the socket group) may tell the daemon what to log: see restrictToDaemon.
constexpr mode_t kFifoMode = 0600;
constexpr mode_t kDirMode = 0755;
constexpr const char *kBridgeName = "br0";
constexpr int64_t kMsPerSecond = 1000;
constexpr int64_t kUsPerMs = 1000;
constexpr uint32_t kHandledSignals =
    SIG_BIT_RELOAD | SIG_BIT_REFRESH | SIG_BIT_DUMP | SIG_BIT_TERMINATE;
// Rounds of signal work in one pass; a signal storm past them still ends the next
// wait at once through the wake pipe.
constexpr int kSignalRounds = 4;
constexpr size_t kWakeDrainBytes = 64;

// The write end of the wake pipe, for the handler; -1 while there is none.
std::atomic<int> signalWakeWriteFd{-1};
UniqueFd signalWakeWriter;

// Under $HOSTRIX_ROOT the fixed directories may not exist yet; create them so that a
// fresh root works. On a real gateway they exist and nothing happens.
void createRootDirectories() {
    const char *root = std::getenv("HOSTRIX_ROOT");
    if (!root || !*root) return;
    for (HostrixFile file :
         {HostrixFile::ControlSocket, HostrixFile::HostInfo, HostrixFile::FcLutList}) {
        std::string dir = hostrixPath(file);
        dir.erase(dir.rfind('/'));
        for (size_t slash = 1; slash != std::string::npos; slash = dir.find('/', slash + 1))
            mkdir(dir.substr(0, slash).c_str(), kDirMode);
        mkdir(dir.c_str(), kDirMode);
    }
}

void swallowSignal(int /*signo*/) {}

void installSignalHandlers() {
    for (int signo : {SIGUSR1, SIGUSR2, SIGHUP, SIGTERM}) std::signal(signo, signalHandler);
    // A control client that goes away before its reply must not end the daemon. Caught
    // rather than ignored: an ignored SIGPIPE would pass to every command started through
    // popen or system, while exec resets a caught one to its default.
    struct sigaction pipeAction {};
    pipeAction.sa_handler = swallowSignal;
    pipeAction.sa_flags = SA_RESTART;
    sigemptyset(&pipeAction.sa_mask);
    sigaction(SIGPIPE, &pipeAction, nullptr);
}

// Removes FILE if it can be opened, as shutdown leaves nothing to misread.
void removeIfPresent(HostrixFile file) {
    const char *path = hostrixPath(file);
    if (UniqueFile(std::fopen(path, "r"))) unlink(path);
}

void clearSignalBit(uint32_t bit) {
    sigFlags.fetch_and(~bit);
}

void addToSet(int fd, fd_set &set, int &highest) {
    if (fd < 0 || fd >= FD_SETSIZE) return;
    FD_SET(fd, &set);
    highest = std::max(highest, fd);
}

bool isReady(int fd, const fd_set &set) {
    return fd >= 0 && fd < FD_SETSIZE && FD_ISSET(fd, &set);
}

}  // namespace

// The flag bits are those of the x86 and ARM signal numbers; MIPS numbers its
// signals otherwise (SIGUSR1 is 16 there), so each signal is mapped, not shifted.
constexpr uint32_t signalBit(int signo) {
    switch (signo) {
        case SIGUSR1: return SIG_BIT_RELOAD;
        case SIGUSR2: return SIG_BIT_REFRESH;
        case SIGHUP: return SIG_BIT_DUMP;
        case SIGTERM: return SIG_BIT_TERMINATE;
        default: return 0;
    }
}

void signalHandler(int signo) {
    sigFlags.fetch_or(signalBit(signo));
    const int wakeFd = signalWakeWriteFd.load();
    if (wakeFd < 0) return;
    const int savedErrno = errno;
    [[maybe_unused]] ssize_t written = write(wakeFd, "s", 1);  // full pipe: a wake is pending
    errno = savedErrno;
}

// A signal that lands between the signal work and select still ends the wait: the
// handler writes to this pipe and select watches it.
int openSignalWake(MainLoopState &state) {
    int fds[2];
    if (pipe2(fds, O_NONBLOCK | O_CLOEXEC) != 0) return -1;
    state.signalWakeFd.reset(fds[0]);
    signalWakeWriter.reset(fds[1]);
    signalWakeWriteFd.store(fds[1]);
    return 0;
}

// The handler runs on the main thread alone (the sniffer blocks every signal), so
// it sees either the open pipe or -1, never a descriptor being closed.
void closeSignalWake(MainLoopState &state) {
    signalWakeWriteFd.store(-1);
    signalWakeWriter.reset();
    state.signalWakeFd.reset();
}

void drainSignalWake(MainLoopState &state) {
    char bytes[kWakeDrainBytes];
    while (state.signalWakeFd.valid() && read(state.signalWakeFd.get(), bytes, sizeof bytes) > 0) {
    }
}

void log_pid() {
    UniqueFile pidFile(std::fopen(hostrixPath(HostrixFile::PidFile), "we"));
    if (!pidFile) {
        logPlain("%s %d create /var/run/hostrix.pid error\n", __func__, __LINE__);
        return;
    }
    std::fprintf(pidFile.get(), "%d\n", static_cast<int>(getpid()));
}

int createHostrixFifo() {
    const char *path = hostrixPath(HostrixFile::Fifo);
    if (mkfifo(path, kFifoMode) < 0 && errno != EEXIST) {
        logPlain("access %s failed: %s\n", path, std::strerror(errno));
    }
    // Also a FIFO left behind by an older run with a wider mode.
    restrictToDaemon(path);
    int fd = open(path, O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        logPlain("open %s failed\n", path);
    }
    return fd;
}

int hostrixStart(MainLoopState &state) {
    bool clockOk = false;
    int64_t now = monotonicSeconds(&clockOk);
    if (clockOk) state.nextTick1 = state.nextTick30 = now;
    timeval wall{};
    if (os_gettimeofday(&wall) == 0) nextBandwidthTime = wall.tv_sec;
    openSignalWake(state);
    installSignalHandlers();
    createRootDirectories();
    log_pid();
    if (msg_create_sockfd() < 0) return -1;
    readDirectSettings();
    initHostrixData();
    lanHostNum = 0;
    controlledNum = 0;
    int authFd = -1;
    init_hostapd_action_sock(&authFd);
    state.authFd.reset(authFd);
    applyChangedSettings(state.applied);
    zvt_fc_host_police_control_mib_counter_init();
    state.fifoFd.reset(createHostrixFifo());
    applySnifferLogLevel();
    startSnifferMonitor(kBridgeName);
    state.waitArmed = false;
    return 0;
}

bool handleSignalWork(MainLoopState &state) {
    uint32_t pending = sigFlags.load();
    if (pending & SIG_BIT_RELOAD) {
        reloadSettings(state.applied);
        clearSignalBit(SIG_BIT_RELOAD);
    }
    if (pending & SIG_BIT_REFRESH) {
        HX_DBG(DBG_TRACE, "receive USR2 signal and processing....\n");
        getAndCalcLanHostCurrBandwidth(state.applied.bandwidthEnable, 1);
        if (writeLanHostInfo() == kHostFileBusy) scheduleFileRetry(state, monotonicSeconds());
        clearSignalBit(SIG_BIT_REFRESH);
    }
    if (pending & SIG_BIT_DUMP) {
        dumpSnifferMonitorInfo();
        clearSignalBit(SIG_BIT_DUMP);
    }
    return !(pending & SIG_BIT_TERMINATE);
}

// Signals that arrive while earlier ones are being handled are handled too, so that
// a SIGTERM during a reload does not wait out the next select.
bool handlePendingSignals(MainLoopState &state) {
    for (int round = 0; round < kSignalRounds && (sigFlags.load() & kHandledSignals); ++round) {
        if (!handleSignalWork(state)) return false;
    }
    return true;
}

void scheduleFileRetry(MainLoopState &state, int64_t now) {
    state.nextFileWrite =
        std::min(state.nextFileWrite, static_cast<int32_t>(now + kFileRetryInterval));
}

// Kept from the monotonic clock, not from what select writes back: some select()
// implementations do not hand back the unslept time, and the duties must still run
// when clients ask more often than every 3 s.
int64_t remainingWaitMs(MainLoopState &state, int64_t nowMs) {
    if (!state.waitArmed) {
        state.waitArmed = true;
        state.waitDeadlineMs = nowMs + int64_t{kLoopTimeoutSec} * kMsPerSecond;
    }
    return std::max<int64_t>(0, state.waitDeadlineMs - nowMs);
}

int buildReadSet(const MainLoopState &state, fd_set &set) {
    FD_ZERO(&set);
    int highest = 1;
    addToSet(state.authFd.get(), set, highest);
    addToSet(state.fifoFd.get(), set, highest);
    addToSet(msgSockFd(), set, highest);
    ctrlWaitingAddToSet(set, highest);
    addToSet(state.signalWakeFd.get(), set, highest);
    return highest + 1;
}

void runPeriodicDuties(MainLoopState &state) {
    int64_t now = monotonicSeconds();
    if (now >= state.nextTick1) {
        state.nextTick1 = now + 1;
        sendARPRequest();
        __zvt_hostrix_update_from_arp();
        invalidAgingOutHostrix();
        getAndCalcLanHostCurrBandwidth(state.applied.bandwidthEnable, 0);
    }
    if (now > state.nextTick30) {
        state.nextTick30 = now + kIpv6ProbeInterval;
        sendIpv6NeighSolicit();
    }
    if (now >= static_cast<int64_t>(state.nextFileWrite)) {
        const bool busy = writeLanHostInfo() == kHostFileBusy;
        state.nextFileWrite =
            static_cast<int32_t>(now + (busy ? kFileRetryInterval : kFileWriteInterval));
    }
}

void readFifoCommand(MainLoopState &state) {
    ssize_t count = read(state.fifoFd.get(), state.fifoBuf, kFifoBufSize);
    if (count <= 0) return;
    // A full read loses its last byte to the terminator.
    count = std::min<ssize_t>(count, kFifoBufSize - 1);
    state.fifoBuf[count] = '\0';
    fifoCmdParse(state.fifoBuf);
}

void serveReadable(MainLoopState &state, const fd_set &set) {
    if (isReady(state.authFd.get(), set)) {
        recv_hostapd_event(state.authFd.get(), state.eventBuf, sizeof state.eventBuf);
        process_hostapd_event(state.eventBuf);
    }
    if (isReady(state.fifoFd.get(), set)) readFifoCommand(state);
    if (isReady(msgSockFd(), set)) msg_process_sockfd(msgSockFd());
    ctrlServeWaiting(set);
}

// A wait that has already run down (while descriptors were served) counts as a
// timeout at once rather than as a zero-length select that a busy client would win.
// The wake pipe is emptied before the signal bits are read, so a signal arriving
// after that read leaves a byte that ends the coming wait.
bool runLoopPass(MainLoopState &state) {
    drainSignalWake(state);
    if (!handlePendingSignals(state)) return false;
    const int64_t leftMs = remainingWaitMs(state, monotonicMilliseconds());
    fd_set readSet;
    int ready = 0;
    if (leftMs > 0) {
        int count = buildReadSet(state, readSet);
        timeval timeout{static_cast<time_t>(leftMs / kMsPerSecond),
                        static_cast<suseconds_t>(leftMs % kMsPerSecond * kUsPerMs)};
        ready = select(count, &readSet, nullptr, nullptr, &timeout);
    }
    if (ready == 0) {
        state.waitArmed = false;
        runPeriodicDuties(state);
    }
    if (ready > 0) serveReadable(state, readSet);
    ctrlDropStaleWaiting(monotonicMilliseconds());
    return true;
}

void hostrixShutdown(MainLoopState &state) {
    stopSnifferMonitor();
    state.authFd.reset();
    removeIfPresent(HostrixFile::HostInfo);
    removeIfPresent(HostrixFile::PidFile);
    closeSignalWake(state);
}

int hostrixMain() {
    static MainLoopState state;  // large buffers; one per process
    if (hostrixStart(state) < 0) return -1;
    while (runLoopPass(state)) {
    }
    hostrixShutdown(state);
    return 0;
}
