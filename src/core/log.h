// Debug output: "[Hostrix]:" lines on standard output, each group gated by a bit of
// dbg_level and flushed at once so that a log reader sees every line as it happens.
#pragma once

#include <cstdint>
#include <cstdio>

extern uint32_t dbg_level;

// Debug groups (bits of dbg_level).
inline constexpr uint32_t DBG_ARP_SEND = 0x1;
inline constexpr uint32_t DBG_TRACE = 0x2;
inline constexpr uint32_t DBG_LOOKUP = 0x4;
inline constexpr uint32_t DBG_NEW_HOST = 0x8;
inline constexpr uint32_t DBG_FREE_LIST = 0x10;
inline constexpr uint32_t DBG_COMMAND = 0x20;
inline constexpr uint32_t DBG_BLACKLIST = 0x40;
inline constexpr uint32_t DBG_MESSAGE = 0x80;
inline constexpr uint32_t DBG_IP_SOURCE = 0x100;
inline constexpr uint32_t DBG_SNIFFER_VERBOSE = 0x400;
inline constexpr uint32_t DBG_AGEING = 0x800;

// A gated debug line: "[Hostrix]:" and the message.
void hostrixLog(const char *format, ...) __attribute__((format(printf, 1, 2)));
// An error or notice printed whatever the flags, without the prefix.
void logPlain(const char *format, ...) __attribute__((format(printf, 1, 2)));

#define HX_DBG(bits, ...)                                   \
    do {                                                    \
        if (dbg_level & (bits)) hostrixLog(__VA_ARGS__);    \
    } while (0)

// "%02x-%02x-%02x-%02x-%02x-%02x" and its arguments, for log lines.
#define MAC_FMT "%02x-%02x-%02x-%02x-%02x-%02x"
#define MAC_ARGS(m) (m)[0], (m)[1], (m)[2], (m)[3], (m)[4], (m)[5]
