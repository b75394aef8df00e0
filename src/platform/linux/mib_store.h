// The configuration store: $HOSTRIX_ROOT/etc/hostrix/mib.conf, read at the first call
// and again whenever the file (or the path, after pathsReset) has changed since the
// last one, so the daemon's SIGUSR1 reload sees an edited file. Main thread only.
//
// A missing file gives the defaults silently; a file that cannot be read gives the
// defaults and one line on standard error; a malformed line is reported once per
// load and skipped.
//
// ELANRIF and WLANIF start with the default names and are refilled at every load.
// Their entries point at storage that lives as long as the process. A port or radio
// the file leaves out points at kMibNoInterface rather than "": the daemon matches
// port names by substring, and "" would match every name.
#pragma once

#include "platform/linux/mib_config.h"

// No interface name may contain a slash, so this never matches one.
inline constexpr char kMibNoInterface[] = "/";

// The current settings, read again first when the file changed.
const MibConfig &mibConfigCurrent();

// Forgets the loaded file, so that the next call reads it again.
void mibConfigReset();
