// Wi-Fi stations of one interface as 149-byte station records, from one of two
// sources chosen by the configuration: the nl80211 station dump of a real radio, or a
// text file per interface in a directory, which the lab writes in place of radios.
// getWlStaInfo is the only read of an interface's stations; the mode lookup answers
// from what its last read kept.
//
// Station file lines: "MAC SIGNAL RXRATE TXRATE MODE", e.g.
// "02:00:00:00:00:01 -44 866.7 144 ac": signal in dBm, rates in Mb/s (whole or with
// decimals), mode a word of at most 8 characters. The parser is pure.
#pragma once

#include <cstddef>
#include <span>
#include <string_view>

#include "platform/mib.h"

// Stations one interface reports: buffer positions 1..64 (position 0 is not used).
inline constexpr size_t kMaxStationsPerInterface = kMaxStaNum - 1;
// Only this much of a station file is read (whole lines of it).
inline constexpr size_t kMaxStationFileBytes = 8192;
inline constexpr size_t kMaxStationModeChars = sizeof(wlStaInfo::mode) - 1;

// The record for a signal in dBm: dBm + 100, clamped to 0..255.
uint8_t stationSignalByte(long dbm);

// Fills OUT (inUse, mac, associated flag, signal, rates, mode) from one line without
// its newline; false for a malformed line.
bool parseStationLine(std::string_view line, wlStaInfo &out);

// Fills OUT with the stations of TEXT in file order, at most OUT.size(); returns the count.
size_t parseStationFile(std::string_view text, std::span<wlStaInfo> out);

// The SSID that IFNAME (a gateway name) broadcasts, from nl80211: at most 32 bytes,
// viewed until the next call into this module; false when none is known. The
// kernel is asked at most once per interface per discovery cycle: the cycle's
// station read of IFNAME answers, or else the first lookup does.
bool wifiInterfaceSsid(const char *ifname, std::string_view &ssid);
