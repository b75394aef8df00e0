#include "event_ring.h"

#include <algorithm>

EventRing::EventRing(uint64_t firstSeq, size_t capacity)
    : capacity_(std::max<size_t>(capacity, 1)), next_(firstSeq), first_(firstSeq) {
    lines_.reserve(std::min(capacity_, size_t{64}));
}

uint64_t EventRing::push(std::string line) {
    uint64_t seq = next_++;
    size_t slot = static_cast<size_t>((seq - first_) % capacity_);
    if (slot < lines_.size())
        lines_[slot] = std::move(line);
    else
        lines_.push_back(std::move(line));
    return seq;
}

std::optional<std::vector<const std::string *>> EventRing::after(uint64_t since) const {
    uint64_t oldest = next_ - lines_.size();  // sequence number of the oldest line held
    if (since > lastSeq() || since + 1 < oldest) return std::nullopt;
    std::vector<const std::string *> missed;
    for (uint64_t seq = since + 1; seq < next_; ++seq)
        missed.push_back(&lines_[static_cast<size_t>((seq - first_) % capacity_)]);
    return missed;
}
