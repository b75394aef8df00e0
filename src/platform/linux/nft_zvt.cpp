// The switch library's traffic counter operations on nftables: the table is made at
// start-up and removed at exit; hosts coming and going are queued and sent in one
// transaction at the end of each discovery cycle (or before a listing); each sampling
// pass reads both sets once and answers from that copy. Everything here runs on the
// main thread.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/linux/mib_store.h"
#include "platform/linux/nft_counters.h"
#include "platform/linux/nft_netlink.h"
#include "platform/zvt.h"

namespace {

struct CounterState {
    bool available = false;
    bool removalRegistered = false;
    bool failing = false;  // a failure was reported and nothing has worked since
    pid_t owner = 0;       // the process that made the table; a forked child leaves it be
    NftHostQueue queue;
    std::vector<NftCounter> sample;  // of the current sampling pass, sorted by MAC
};

CounterState &counterState() {
    static CounterState state;
    return state;
}

void removeTable() {
    if (counterState().owner == getpid()) (void)nftDeleteTable();
}

// One line when the counters stop working, not one per cycle.
void noteFailure(const char *what, int error) {
    CounterState &state = counterState();
    if (state.failing) return;
    state.failing = true;
    (void)std::fprintf(stderr,
                       "hostrix: traffic counters: %s sets tx and rx of bridge table hostrix "
                       "failed%s%s (rates not available; retried each cycle)\n",
                       what, error ? ": " : "", error ? std::strerror(error) : "");
}

void noteSuccess() {
    CounterState &state = counterState();
    if (!state.failing) return;
    state.failing = false;
    (void)std::fprintf(stderr, "hostrix: traffic counters: bridge table hostrix answers again\n");
}

// Sends what is queued; false when the kernel did not take it (it stays queued).
bool flushQueue() {
    bool sent = false;
    int error = 0;
    const bool done = counterState().queue.flush([&](std::span<const NftHostOp> ops) {
        sent = true;
        error = nftSendHostOps(ops);
        return error == 0;
    });
    if (!done) noteFailure("updating", error);
    if (done && sent) noteSuccess();
    return done;
}

const NftCounter *sampled(const void *entry) {
    NftMac mac;
    std::memcpy(mac.data(), entry, mac.size());  // a host entry begins with its MAC
    const std::vector<NftCounter> &sample = counterState().sample;
    auto it = std::lower_bound(sample.begin(), sample.end(), mac,
                               [](const NftCounter &c, const NftMac &key) { return c.mac < key; });
    return it != sample.end() && it->mac == mac ? &*it : nullptr;
}

}  // namespace

int zvt_fc_host_police_control_mib_counter_init() {
    CounterState &state = counterState();
    state.available = false;
    state.sample.clear();
    if (mibConfigCurrent().counters == MibCounterSource::Off) return 0;
    if (const int error = nftReplaceTable(); error != 0) {
        (void)std::fprintf(stderr,
                           "hostrix: traffic counters are not available: the kernel refused the "
                           "bridge table hostrix: %s (it needs root and nf_tables; counters = off "
                           "in mib.conf stops trying)\n",
                           std::strerror(error));
        return -1;
    }
    state.available = true;
    state.owner = getpid();
    // The daemon returns from main when it stops, so the table goes with it.
    if (!state.removalRegistered) state.removalRegistered = std::atexit(removeTable) == 0;
    return 0;
}

int zvt_update_lan_hpc_for_mib(void *entry, int on) {
    CounterState &state = counterState();
    if (!entry || !state.available) return -1;
    NftHostOp op{.on = on != 0};
    std::memcpy(op.mac.data(), entry, op.mac.size());
    if (state.queue.push(op))
        (void)std::fprintf(stderr,
                           "hostrix: traffic counters: more than %zu hosts wait for the sets; the "
                           "oldest are dropped\n",
                           kMaxNftPendingHosts);
    return 0;
}

int zvt_commit_lan_hpc() {
    if (!counterState().available) return -1;
    return flushQueue() ? 0 : -1;
}

// The second counter set has no source here.
int zvt_fc_update_lan_hpc_for_mib(void *, int) {
    return 0;
}

int zvt_host_police_control_mib_counter_get_begin() {
    CounterState &state = counterState();
    state.sample.clear();
    if (!state.available) return 0;
    if (!flushQueue()) return -1;
    std::vector<NftSetElement> elements;
    if (!nftReadCounters(elements)) {
        noteFailure("reading", 0);
        return -1;
    }
    noteSuccess();
    state.sample = mergeNftElements(std::move(elements));
    return 0;
}

int zvt_host_police_control_mib_counter_get_end() {
    counterState().sample.clear();
    return 0;
}

int zvt_host_police_control_mib_counter_get(void *entry, uint64_t pair[2]) {
    if (!entry || !pair) return -1;
    const NftCounter *counter = sampled(entry);
    if (!counter || !counter->inTx || !counter->inRx) return -1;
    pair[0] = counter->txBytes;
    pair[1] = counter->rxBytes;
    return 0;
}

int zvt_fc_host_police_control_mib_counter_get(void *, uint64_t *) {
    return -1;
}
