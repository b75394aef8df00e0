#include "sniffer/sniffer.h"

namespace {
unsigned int logLevel = 3;
}

int setSnifferMonitorLogLevel(unsigned int level) {
    logLevel = level;
    return 0;
}

unsigned int snifferLogLevel() { return logLevel; }

// The capture thread arrives with the sniffer work; until then nothing is started.
int startSnifferMonitor(const char * /*interfaces*/) { return 0; }
int stopSnifferMonitor() { return 0; }
int dumpSnifferMonitorInfo() { return 0; }
