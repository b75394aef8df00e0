#include "sniffer/sniffer.h"

#include <pthread.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/select.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "core/unique_fd.h"
#include "sniffer/link_events.h"
#include "sniffer/monitor_intf.h"
#include "sniffer/neighbor_cache.h"

// Cancellation reaches the sniffer thread as a forced unwind that runs destructors:
// nothing on its path may be noexcept or swallow exceptions. It is acted upon only at
// the start of the loop and in the wait.

namespace {

constexpr time_t kAgeingIntervalSec = 5;
constexpr const char *kThreadName = "Sniffer";
constexpr char kListSeparator = ',';

// Written by the main thread, read by the sniffer thread; a late view is harmless.
std::atomic<unsigned int> logLevel{kSnifferError};
// Set while the wait loop may run; cleared by the cancellation handler.
std::atomic<int> runFlag{0};

// The thread's state is kept here rather than probed on its handle, which says
// nothing reliable once the thread has ended. ALIVE runs from just before creation
// until the thread ends, either way; JOINABLE until the main thread has reaped it.
std::atomic<bool> threadAlive{false};
bool threadJoinable = false;  // main thread only, like the handle
pthread_t snifferThread{};

struct FreeDeleter {
    void operator()(char *text) const { std::free(text); }
};
using ListCopy = std::unique_ptr<char, FreeDeleter>;

// Longer names are no interface's; a 16-character one is left to the kernel's lookup.
void addStartupElement(std::string_view element) {
    if (element.size() >= kMonitorListNameMax) return;
    char name[kMonitorListNameMax] = {};
    element.copy(name, element.size());
    if (add_monitor_intf(name, nullptr)) add_lower_monitor_intf(name, kMonitorPortPrefix);
}

// Every element up to a comma or the end, empty ones included.
void addStartupInterfaces(std::string_view list) {
    while (true) {
        const size_t comma = list.find(kListSeparator);
        addStartupElement(list.substr(0, comma));
        if (comma == std::string_view::npos) return;
        list.remove_prefix(comma + 1);
    }
}

// Holds cancellation off for one scope, restoring the state found.
class CancellationHeldOff {
   public:
    CancellationHeldOff() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous_); }
    ~CancellationHeldOff() { pthread_setcancelstate(previous_, nullptr); }
    CancellationHeldOff(const CancellationHeldOff &) = delete;
    CancellationHeldOff &operator=(const CancellationHeldOff &) = delete;

   private:
    int previous_ = PTHREAD_CANCEL_ENABLE;
};

bool inSelectRange(int fd) {
    return fd >= 0 && fd < FD_SETSIZE;
}

// The wait is the thread's only cancellation point, and its frames hold no lock.
// Cancellation unwinds them without their epilogues, so they are left uninstrumented:
// AddressSanitizer would otherwise keep their stale stack poison and report it
// against its own frames (google/sanitizers#1399). They touch no buffer of their own.
#define WAIT_FRAME __attribute__((no_sanitize("address")))

// A descriptor at or above FD_SETSIZE cannot go into a select set; it is left out.
WAIT_FRAME int waitReadable(int netlinkFd, fd_set &ready, timeval &timeout) {
    FD_ZERO(&ready);
    int highest = set_monitor_sd_set(&ready);
    if (inSelectRange(netlinkFd)) {
        FD_SET(netlinkFd, &ready);
        if (netlinkFd > highest) highest = netlinkFd;
    }
    return select(highest + 1, &ready, nullptr, nullptr, &timeout);
}

// What one wait returned is handled whole: the parser, the cache and the list are never
// left half-way, and no descriptor is closed in a destructor while cancellation could
// strike (acting on it there would end the process, not the thread).
void handleReady(int netlinkFd, const fd_set &ready) {
    CancellationHeldOff heldOff;
    if (inSelectRange(netlinkFd) && FD_ISSET(netlinkFd, &ready)) read_nl_event(netlinkFd);
    check_monitor_sd_set(&ready);
}

// The ageing pass, like the handling of a wait, runs whole.
void ageCache() {
    CancellationHeldOff heldOff;
    aging_neighbor_host(0);
}

// Until a wait fails for good.
WAIT_FRAME void waitForFrames(int netlinkFd, timeval &timeout) {
    while (runFlag.load() && sniffer_wait_once(netlinkFd, timeout) == 0) {
    }
}

// Every signal blocked in the calling thread while it lives, then the old mask back.
// A thread inherits its creator's mask, so the sniffer starts with all of them blocked
// and never runs a handler: signals are the main loop's, which wakes on them.
class AllSignalsBlocked {
   public:
    AllSignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &previous_);
    }
    ~AllSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &previous_, nullptr); }
    AllSignalsBlocked(const AllSignalsBlocked &) = delete;
    AllSignalsBlocked &operator=(const AllSignalsBlocked &) = delete;

   private:
    sigset_t previous_{};
};

int createSnifferThread(char *interfaces) {
    AllSignalsBlocked blocked;
    return pthread_create(&snifferThread, nullptr, sniffer_monitor, interfaces);
}

// A thread that has ended, or is ending, is joined so that its resources go.
void reapSnifferThread() {
    if (!threadJoinable) return;
    pthread_join(snifferThread, nullptr);
    threadJoinable = false;
}

}  // namespace

// TIMEOUT carries what select left of the ageing budget across waits, so ageing runs
// every 5 s of waiting even under steady traffic.
WAIT_FRAME int sniffer_wait_once(int netlinkFd, timeval &timeout) {
    fd_set ready;
    const int count = waitReadable(netlinkFd, ready, timeout);
    if (count < 0) return errno == EAGAIN || errno == EINTR ? 0 : -1;
    if (count == 0) {
        ageCache();
        timeout = {kAgeingIntervalSec, 0};
        return 0;
    }
    handleReady(netlinkFd, ready);
    return 0;
}

void *sniffer_monitor(void *interfaces) {
    ListCopy list(static_cast<char *>(interfaces));
    // Set-up runs whole: a stop requested meanwhile is acted upon once it is done.
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    prctl(PR_SET_NAME, kThreadName);
    runFlag.store(1);
    if (list && *list) addStartupInterfaces(list.get());
    UniqueFd netlink(init_netlink_socket());  // without it, no link events
    timeval timeout{kAgeingIntervalSec, 0};
    SNIFFER_LOG(kSnifferProgress, "Start sniffer packet ...\n");

    pthread_cleanup_push(CancelSnifferMobitor, nullptr);
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
    pthread_testcancel();
    waitForFrames(netlink.get(), timeout);
    pthread_cleanup_pop(0);

    // The normal end is not interrupted: a stop arriving now simply joins it.
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    SNIFFER_LOG(kSnifferProgress, "Stop sniffer packet ...\n");
    list.reset();
    netlink.reset();
    del_all_monitor_intf();
    aging_neighbor_host(1);
    threadAlive.store(false);
    return nullptr;
}

// Runs during the cancellation unwinding, after the thread's inner frames have gone.
// The list, its sockets and the cache stay as they are: the daemon stops the sniffer
// only on its way out. The thread holds no lock in its wait; the list lock is checked
// all the same. The neighbour-cache lock needs no such check: it is held only inside
// scoped guards with no cancellation point in them.
void CancelSnifferMobitor(void * /*unused*/) {
    SNIFFER_LOG(kSnifferProgress, "Cancel Sniffer ...\n");
    runFlag.store(0);
    releaseMonitorListLockIfHeld();
    threadAlive.store(false);
}

int setSnifferMonitorLogLevel(unsigned int level) {
    SNIFFER_LOG(kSnifferProgress, "Set level %u\n", level);
    logLevel.store(level, std::memory_order_relaxed);
    return 0;
}

unsigned int snifferLogLevel() {
    return logLevel.load(std::memory_order_relaxed);
}

int startSnifferMonitor(const char *interfaces) {
    if (threadAlive.load()) {
        SNIFFER_LOG(kSnifferError, "Sniffer already running !\n");
        return -1;
    }
    SNIFFER_LOG(kSnifferProgress, "Start Sniffer\n");
    if (!interfaces) return 0;
    reapSnifferThread();
    ListCopy copy(strdup(interfaces));
    threadAlive.store(true);
    if (!copy || createSnifferThread(copy.get()) != 0) {
        threadAlive.store(false);
        SNIFFER_LOG(kSnifferError, "create Sniffer thread error\n");
        return -1;
    }
    copy.release();  // the thread owns it now
    threadJoinable = true;
    return 0;
}

int stopSnifferMonitor() {
    SNIFFER_LOG(kSnifferProgress, "Stop Sniffer\n");
    if (threadAlive.load()) pthread_cancel(snifferThread);
    reapSnifferThread();
    return 0;
}

int dumpSnifferMonitorInfo() {
    logPlain("====> [Sniffer Information] <====\n");
    dump_monitor_intf();
    dump_neighbor_host();
    return 0;
}

bool snifferRunning() {
    return threadAlive.load();
}

void snifferReset() {
    stopSnifferMonitor();
    del_all_monitor_intf();
}
