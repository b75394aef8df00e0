// The packet sniffer thread and its monitored interfaces.
#pragma once

#include <sys/time.h>

#include "core/log.h"

int setSnifferMonitorLogLevel(unsigned int level);
int startSnifferMonitor(const char *interfaces);
int stopSnifferMonitor();
int dumpSnifferMonitorInfo();

unsigned int snifferLogLevel();

// The thread's body, given its own heap copy of the comma-separated list (freed with
// free()); and its cancellation handler.
void *sniffer_monitor(void *interfaces);
void CancelSnifferMobitor(void *unused);
// One wait of the thread's loop on its sockets and NETLINKFD, and what it brought: the
// frames and link events, or, when the wait ran TIMEOUT down, the ageing pass and a new
// 5 s. 0, or -1 once a wait has failed for good.
int sniffer_wait_once(int netlinkFd, timeval &timeout);

// For tests: whether a sniffer thread is alive; and a stop that also forgets every
// monitored interface, so that the next start begins from an empty list.
bool snifferRunning();
void snifferReset();

// Sniffer levels: 3 errors, 4 notices, 6 progress, 7 packet detail.
inline constexpr unsigned int kSnifferError = 3;
inline constexpr unsigned int kSnifferNotice = 4;
inline constexpr unsigned int kSnifferProgress = 6;
inline constexpr unsigned int kSnifferPacket = 7;

// "[Sniffer][operation:line] " and the message, when the sniffer level reaches LEVEL.
// The _AS form names the operation itself, for helpers that log on behalf of it.
#define SNIFFER_LOG_AS(level, operation, format, ...)                                      \
    do {                                                                                   \
        if (snifferLogLevel() >= (level))                                                  \
            logPlain("[Sniffer][%s:%d] " format, operation, __LINE__ __VA_OPT__(, ) __VA_ARGS__); \
    } while (0)
#define SNIFFER_LOG(level, format, ...) \
    SNIFFER_LOG_AS(level, __func__, format __VA_OPT__(, ) __VA_ARGS__)
