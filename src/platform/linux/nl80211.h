// Stations of a real radio from the kernel's nl80211 station dump over generic
// netlink. The decoders are pure: they read only the bytes they are given and check
// every message and attribute length, so tests and the fuzzer feed them crafted bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "platform/mib.h"

// How a received chunk of a dump left it.
enum class NlDumpState { More, Done, Failed };

// Where a dump's stations go; stations beyond the room are dropped.
struct StationCollector {
    std::span<wlStaInfo> slots;
    size_t count = 0;
};

// The family id from a chunk answering the family request SEQ: > 0 the id, 0 when
// the chunk holds no answer, -1 for an error answer or a malformed message.
int nl80211DecodeFamilyReply(std::span<const uint8_t> bytes, uint32_t seq);

// One station from the attributes of a NL80211_CMD_NEW_STATION message (after its
// generic-netlink header). False without a MAC or with a malformed attribute.
bool nl80211DecodeStation(std::span<const uint8_t> attributes, wlStaInfo &out);

// One received chunk of the station dump SEQ, whose messages have type FAMILY.
// Messages of another sequence are passed over.
NlDumpState nl80211DecodeStationDump(std::span<const uint8_t> bytes, uint32_t seq, uint16_t family,
                                     StationCollector &out);

// The stations of IFNAME in OUT, in dump order; their count, or -1 when the kernel
// has no nl80211, IFNAME is no wireless interface, or the dump fails.
int nl80211ReadStations(const char *ifname, std::span<wlStaInfo> out);
