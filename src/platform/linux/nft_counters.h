// Per-host traffic counters on a plain Linux box: an nftables bridge table "hostrix"
// whose sets tx and rx count, per MAC, the bytes a host sends and receives on the
// bridge, forwarded or to and from the gateway itself. The switch library's plain
// counter set answers from it; its second set answers "not available".
//
// The listing parser is pure: it reads only the text it is given, so the fuzzer and
// the tests drive it without nft.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

inline constexpr size_t kNftMacBytes = 6;
// Set elements taken from one listing: 256 hosts need 512, the rest is headroom.
inline constexpr size_t kMaxNftElements = 4096;
// Bytes of one listing read; 512 elements take about 50 KiB.
inline constexpr size_t kMaxNftListingBytes = size_t{1} << 20;

// One MAC's counters, from the sets that hold it.
struct NftCounter {
    std::array<uint8_t, kNftMacBytes> mac{};
    uint64_t txBytes = 0;  // sent by the host
    uint64_t rxBytes = 0;  // received by the host
    bool inTx = false;
    bool inRx = false;
    bool operator==(const NftCounter &) const = default;
};

// The elements of sets tx and rx in JSON of "nft -j list table bridge hostrix", one
// entry per MAC, sorted by MAC. Elements that cannot be understood are left out; text
// cut short gives what was complete before the cut.
std::vector<NftCounter> parseNftCounterListing(std::string_view json);
