// Per-host traffic counters on a plain Linux box: an nftables bridge table "hostrix"
// whose sets tx and rx count, per MAC, the bytes a host sends and receives on the
// bridge, forwarded or to and from the gateway itself. The switch library's plain
// counter set answers from it; its second set answers "not available".
//
// This header holds the pure parts: the decoder of the kernel's set-element dumps and
// the queue of registrations waiting for the next transaction. They touch no socket,
// so the fuzzer and the tests drive them on bytes and callbacks.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "platform/linux/netlink_route.h"

inline constexpr size_t kNftMacBytes = 6;
// Set elements taken from one sampling pass: 256 hosts need 512, the rest is headroom.
inline constexpr size_t kMaxNftElements = 4096;
// Hosts waiting for the next transaction; a full queue drops its oldest.
inline constexpr size_t kMaxNftPendingHosts = 1024;

using NftMac = std::array<uint8_t, kNftMacBytes>;

enum class NftSet { Tx, Rx };

// One element of set tx or rx with its counter.
struct NftSetElement {
    NftSet set = NftSet::Tx;
    NftMac mac{};
    uint64_t bytes = 0;
    bool operator==(const NftSetElement &) const = default;
};

// One MAC's counters, from the sets that hold it.
struct NftCounter {
    NftMac mac{};
    uint64_t txBytes = 0;  // sent by the host
    uint64_t rxBytes = 0;  // received by the host
    bool inTx = false;
    bool inRx = false;
    bool operator==(const NftCounter &) const = default;
};

// Decodes one datagram of a set-element dump (NFT_MSG_GETSETELEM) that answers request
// SEQUENCE, appending the elements of sets tx and rx of bridge table hostrix that have
// a MAC key and a counter; ELEMENTS holds at most kMaxNftElements. Reads nothing past
// DATAGRAM; elements of a malformed message are left out.
RouteDumpStatus decodeNftElementDump(std::span<const uint8_t> datagram, uint32_t sequence,
                                     std::vector<NftSetElement> &elements);

// One entry per MAC, sorted by MAC; of a MAC listed twice in one set, the later wins.
std::vector<NftCounter> mergeNftElements(std::vector<NftSetElement> elements);

// A host entering (on) or leaving the counter sets.
struct NftHostOp {
    NftMac mac{};
    bool on = false;
    bool operator==(const NftHostOp &) const = default;
};

// Registrations waiting to be sent, one per MAC (the latest), oldest first. Everything
// pending goes out in one transaction, and stays when that transaction fails.
class NftHostQueue {
   public:
    // Sends OPS as one transaction; true when the kernel took it.
    using Send = std::function<bool(std::span<const NftHostOp> ops)>;

    explicit NftHostQueue(size_t capacity = kMaxNftPendingHosts)
        : capacity_(capacity > 0 ? capacity : 1) {}

    // Queues OP in place of any earlier one for its MAC. True when a full queue had
    // to drop its oldest for the first time since the last successful send, which
    // the caller then reports.
    bool push(const NftHostOp &op);
    // Hands everything pending to SEND at once, and forgets it when SEND succeeds.
    // True when sent or when nothing was pending (SEND is then not called).
    bool flush(const Send &send);

    std::span<const NftHostOp> pending() const { return ops_; }
    void clear() { ops_.clear(); }

   private:
    size_t capacity_;
    std::vector<NftHostOp> ops_;
    bool dropReported_ = false;
};
