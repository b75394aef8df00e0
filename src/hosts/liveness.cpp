#include "hosts/liveness.h"

#include "core/log.h"
#include "platform/os.h"

void _disConnLanHost(hostEntry *entry, const char *caller, int line) {
    if (!entry) return;
    HX_DBG(DBG_TRACE, "[%s %d] disconnect host(" MAC_FMT ") called by %s:%d\n", __func__,
           __LINE__, MAC_ARGS(entry->lanHost.mac), caller, line);
    time_t now = os_time();
    HX_DBG(DBG_TRACE, "[%s %d]:disconnect lanhost(" MAC_FMT ")\n", __func__, __LINE__,
           MAC_ARGS(entry->lanHost.mac));
    entry->valid = 0;
    entry->idleSecs = 0;
    entry->lanHost.onLineTime = 0;
    entry->lanHost.firstConnect = 0;
    entry->lanHost.disConnect = 1;
    entry->arpReqTime = 0;
    formatHostTime(entry->lanHost.disConnectTime, now);
}

// Ageing arrives with the liveness work; until then no host is aged out.
int invalidAgingOutHostrix() { return 0; }

int isActiveInFcTable(hostEntry * /*entry*/) { return 0; }
int removeFcLutList() { return 0; }
int disableHostrixByPortIdx(uint8_t /*portId*/) { return -1; }
