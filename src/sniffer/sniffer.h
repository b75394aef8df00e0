// The packet sniffer thread and its monitored interfaces.
#pragma once

int setSnifferMonitorLogLevel(unsigned int level);
int startSnifferMonitor(const char *interfaces);
int stopSnifferMonitor();
int dumpSnifferMonitorInfo();

unsigned int snifferLogLevel();
