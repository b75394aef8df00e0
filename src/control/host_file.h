// The host-information file: every online host as a 944-byte record, longest online
// first, rewritten in place under the file lock; and the debug dump of one host.
#pragma once

#include "hosts/lanhost.h"

// -1 when the file cannot be opened, else 0 (also when it could not be locked or
// truncated and was left untouched).
int writeLanHostInfo();
// Stable ascending sort of LIST[0..n) by startOnLine.
void sortLanHostByStartOnLine(hostEntry **list, int n);
// One block of labelled lines when the command debug group is on.
void dumpLanHostInfo(const hostEntry *entry);
