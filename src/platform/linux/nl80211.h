// A real radio's facts from the kernel's nl80211 over generic netlink: the
// interface's SSID and channel frequency, and its station dump. The decoders are
// pure: they read only the bytes they are given and check every message and
// attribute length, so tests and the fuzzer feed them crafted bytes.
//
// The readers take kernel interface names; the caller translates gateway names.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "platform/mib.h"

inline constexpr size_t kNl80211MaxSsidBytes = 32;  // as on the air

// How a received chunk of a dump left it.
enum class NlDumpState { More, Done, Failed };

// What an interface says of itself.
struct Nl80211Interface {
    uint32_t frequencyMhz = 0;                 // 0: on no channel, or not said
    char ssid[kNl80211MaxSsidBytes + 1] = {};  // NUL-terminated; empty: none
};

// Where a dump's stations go; stations beyond the room are dropped. The interface's
// frequency tells 2.4 GHz from 5 and 6 GHz for stations at legacy rates.
struct StationCollector {
    std::span<wlStaInfo> slots;
    uint32_t frequencyMhz = 0;
    size_t count = 0;
};

// The family id from a chunk answering the family request SEQ: > 0 the id, 0 when
// the chunk holds no answer, -1 for an error answer or a malformed message.
int nl80211DecodeFamilyReply(std::span<const uint8_t> bytes, uint32_t seq);

// The SSID (cut to 32 bytes) and frequency from the attributes of a
// NL80211_CMD_NEW_INTERFACE message; false with a malformed attribute.
bool nl80211DecodeInterface(std::span<const uint8_t> attributes, Nl80211Interface &out);

// A chunk answering the interface request SEQ to FAMILY: 1 with OUT filled, 0 when
// the chunk holds no answer, -1 for an error answer or a malformed message.
int nl80211DecodeInterfaceReply(std::span<const uint8_t> bytes, uint32_t seq, uint16_t family,
                                Nl80211Interface &out);

// One station from the attributes of a NL80211_CMD_NEW_STATION message (after its
// generic-netlink header), on an interface at FREQUENCYMHZ. The mode is the newest
// generation either bitrate shows: "be", "ax", "ac", "n", else "a" on 5 and 6 GHz,
// "g" on 2.4 GHz, "" on an unknown band. False without a MAC or with a malformed
// attribute.
bool nl80211DecodeStation(std::span<const uint8_t> attributes, uint32_t frequencyMhz,
                          wlStaInfo &out);

// One received chunk of the station dump SEQ, whose messages have type FAMILY.
// Messages of another sequence are passed over.
NlDumpState nl80211DecodeStationDump(std::span<const uint8_t> bytes, uint32_t seq, uint16_t family,
                                     StationCollector &out);

// IFNAME's SSID and frequency; 0, or -1 when the kernel has no nl80211 or IFNAME is
// no wireless interface.
int nl80211ReadInterface(const char *ifname, Nl80211Interface &out);

// The stations of IFNAME in OUT, in dump order, and in IFACE what the interface says
// of itself (asked first, on the same socket, for the stations' band); the count, or
// -1 when the kernel has no nl80211, IFNAME is no wireless interface, or the dump fails.
int nl80211ReadStations(const char *ifname, Nl80211Interface &iface, std::span<wlStaInfo> out);
