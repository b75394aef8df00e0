// The host-information file: every online host as a 944-byte record, longest online
// first, rewritten in place under the file lock; and the debug dump of one host.
#pragma once

#include "hosts/lanhost.h"

// writeLanHostInfo's answer when a reader held the lock and the write was skipped.
inline constexpr int kHostFileBusy = 1;

// -1 when the file cannot be opened; kHostFileBusy when a reader holds the lock, and
// the file is left as it is for the caller to try again soon; else 0 (also when it
// could not be truncated and was left untouched). Never waits long for the lock.
int writeLanHostInfo();
// Stable ascending sort of LIST[0..n) by startOnLine.
void sortLanHostByStartOnLine(hostEntry **list, int n);
// One block of labelled lines when the command debug group is on.
void dumpLanHostInfo(const hostEntry *entry);
