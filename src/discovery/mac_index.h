// Finds a MAC's first node in one of the cycle's source lists without scanning the
// list, so that a cycle over a full table costs O(hosts) instead of O(hosts squared).
// The lists keep their order and their first-match rule; the index only points into
// the list it was built for. Fixed storage; when a list holds more MACs than half the
// slots, the index gives up and lookups scan as before.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

#include "hosts/lanhost.h"

// The home slot of KEY in an open-addressed table of MASK + 1 slots.
inline size_t macSlot(uint64_t key, size_t mask) {
    return static_cast<size_t>((key * 0x9E3779B97F4A7C15ull) >> 40) & mask;
}

template <typename Node>
class MacIndex {
   public:
    static constexpr size_t kSlots = 512;  // a power of two
    static constexpr size_t kMaxMacs = kSlots / 2;

    // Starts over for the list whose first node is HEAD (which may still grow).
    void reset(const Node *head) {
        slots_.fill(Slot{});
        used_ = 0;
        head_ = head;
        covers_ = true;
    }

    // Answers nothing until the next reset.
    void clear() {
        head_ = nullptr;
        covers_ = false;
    }

    // NODE joins the index; the first node of a MAC stays its answer. Returns the
    // MAC's node added last before this one, or null.
    Node *add(Node *node) {
        if (!covers_) return nullptr;
        Slot *slot = find(node->mac);
        if (slot->node) return std::exchange(slot->last, node);
        if (used_ == kMaxMacs) {
            covers_ = false;
            return nullptr;
        }
        *slot = Slot{macKey(node->mac), node, node};
        ++used_;
        return nullptr;
    }

    // True when the index answers for LIST; FIRST is then MAC's first node or null.
    bool lookup(const Node *list, const uint8_t *mac, Node *&first) const {
        if (!covers_ || list != head_) return false;
        first = const_cast<MacIndex *>(this)->find(mac)->node;
        return true;
    }

    // The list now starts at HEAD (nodes are added at its front).
    void retarget(const Node *head) { head_ = head; }

   private:
    struct Slot {
        uint64_t key = 0;
        Node *node = nullptr;  // the first, null while the slot is free
        Node *last = nullptr;
    };

    // MAC's slot, or the empty one where it would go.
    Slot *find(const uint8_t *mac) {
        const uint64_t key = macKey(mac);
        size_t at = macSlot(key, kSlots - 1);
        while (slots_[at].node && slots_[at].key != key) at = (at + 1) & (kSlots - 1);
        return &slots_[at];
    }

    std::array<Slot, kSlots> slots_{};
    size_t used_ = 0;
    const Node *head_ = nullptr;
    bool covers_ = false;
};
