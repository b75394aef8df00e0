// The last events as the lines subscribers were sent, so that one that reconnects
// with {"since": N} gets what it missed. Fixed capacity: the oldest line goes.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

inline constexpr size_t kEventRingCapacity = 4096;

class EventRing {
public:
    explicit EventRing(uint64_t firstSeq, size_t capacity = kEventRingCapacity);

    // Stores LINE under the next sequence number and returns that number.
    uint64_t push(std::string line);
    // The sequence number of the newest event (firstSeq - 1 before any).
    uint64_t lastSeq() const { return next_ - 1; }

    // The lines after SINCE, oldest first; nullopt when the ring no longer holds
    // all of them, or SINCE lies ahead of the ring (another run's number): the
    // subscriber then needs a snapshot.
    std::optional<std::vector<const std::string *>> after(uint64_t since) const;

private:
    std::vector<std::string> lines_;
    size_t capacity_;
    uint64_t next_;   // sequence number of the next push
    uint64_t first_;  // sequence number of the run's first event
};
