// The three inform queries: each reports a flagged host once, as a 944-byte
// record appended to data, and clears its flag.
#include <cstring>

#include "control/ctrl_commands.h"
#include "core/log.h"
#include "hosts/host_table.h"
#include "platform/os.h"
#include "traffic/bandwidth.h"

namespace {

enum class InformQuery { NewHost, LeftHost, ChangedHost };

// "%2x" (space padded), unlike the table's MAC_FMT.
#define INFORM_MAC_FMT "%2x:%2x:%2x:%2x:%2x:%2x"

bool qualifies(InformQuery query, const hostEntry &entry) {
    const lanHostInfo_t &host = entry.lanHost;
    switch (query) {
        case InformQuery::NewHost:
            return entry.valid == 1 && host.firstConnect == 1;
        case InformQuery::LeftHost:
            return entry.valid == 0 && host.disConnect == 1 && host.firstConnect == 0;
        case InformQuery::ChangedHost:
            return entry.valid == 1 && entry.informChange == 1;
    }
    return false;
}

void clearFlag(InformQuery query, hostEntry &entry) {
    switch (query) {
        case InformQuery::NewHost:
            entry.lanHost.firstConnect = 0;
            return;
        case InformQuery::LeftHost:
            entry.lanHost.disConnect = 0;
            return;
        case InformQuery::ChangedHost:
            entry.informChange = 0;
            return;
    }
}

// Written before the room check, so also for a host that has to wait.
void logSend(InformQuery query, const uint8_t *mac) {
    switch (query) {
        case InformQuery::NewHost:
            HX_DBG(DBG_COMMAND, "send New LanHost MAC(" INFORM_MAC_FMT ").\n", MAC_ARGS(mac));
            return;
        case InformQuery::ChangedHost:
            HX_DBG(DBG_COMMAND, "send Inform change LanHost MAC(" INFORM_MAC_FMT ").\n",
                   MAC_ARGS(mac));
            return;
        case InformQuery::LeftHost:
            return;
    }
}

void logCount(InformQuery query, const char *name, int32_t count) {
    if (query == InformQuery::LeftHost)
        HX_DBG(DBG_COMMAND, "[%s %d]:count =%d\n", name, __LINE__, count);
    else
        HX_DBG(DBG_COMMAND, "[%s %d] count =%d\n", name, __LINE__, count);
}

bool hasRoom(int32_t count) {
    return count >= 0 && static_cast<size_t>(count) + kLanHostInfoSize <= kCtrlDataSize;
}

// A departed host's entry goes back to the free list, unless the host is blocked:
// then it is kept, so that the block survives its next arrival.
void disposeLeftHost(hostEntry &entry) {
    if (entry.lanHost.internetAccess != kInternetAccessBlocked)
        RecycleInvalidHostrix();
    else
        resetLeftLanHost(&entry);
}

struct InformPass {
    InformQuery query;
    const char *name;
    uint32_t uptime;
    ctrlMsg_t *msg;
    int32_t count;
};

// Reports ENTRY at the pass's offset; false when data has no room left for it.
bool reportHost(InformPass &pass, hostEntry &entry) {
    logSend(pass.query, entry.lanHost.mac);
    if (!hasRoom(pass.count)) return false;
    logCount(pass.query, pass.name, pass.count);
    refreshReportedFields(&entry, pass.uptime);
    std::memcpy(pass.msg->data + pass.count, &entry.lanHost, kLanHostInfoSize);
    clearFlag(pass.query, entry);
    pass.count += static_cast<int32_t>(kLanHostInfoSize);
    if (pass.query == InformQuery::LeftHost) disposeLeftHost(entry);
    return true;
}

// Walks the pool by slot index, which recycling (it relinks chains) does not disturb.
int runInformQuery(InformQuery query, const char *name, ctrlMsg_t *msg, int32_t *dataLen) {
    InformPass pass{query, name, 0, msg, *dataLen};
    msg->status = kCtrlStatusFailed;
    // Asked together with 0x1 or 0x2, this wipes their records but keeps writing
    // after them: the client gets zeros there and the change records behind them.
    if (query == InformQuery::ChangedHost) std::memset(msg->data, 0, sizeof msg->data);
    pass.uptime = static_cast<uint32_t>(os_uptime());
    for (hostEntry &entry : hostPool) {
        if (qualifies(query, entry) && !reportHost(pass, entry)) break;
    }
    msg->status = kCtrlStatusOk;
    *dataLen = pass.count;
    return 0;
}

}  // namespace

int cfg_getNewDeviceInform(ctrlMsg_t *msg, int32_t *dataLen) {
    return runInformQuery(InformQuery::NewHost, __func__, msg, dataLen);
}

int cfg_getLeaveDeviceInform(ctrlMsg_t *msg, int32_t *dataLen) {
    return runInformQuery(InformQuery::LeftHost, __func__, msg, dataLen);
}

int cfg_getLanHostInformChange(ctrlMsg_t *msg, int32_t *dataLen) {
    return runInformQuery(InformQuery::ChangedHost, __func__, msg, dataLen);
}

void resetLeftLanHost(hostEntry *entry) {
    if (!entry) return;
    lanHostInfo_t &host = entry->lanHost;
    host.ip = 0;
    host.upRate = 0;
    host.downRate = 0;
    host.rxBytes = 0;
    host.txBytes = 0;
    host.firstConnect = 0;
    std::memset(host.latestActiveTime, 0, sizeof host.latestActiveTime);
    std::memset(host.disConnectTime, 0, sizeof host.disConnectTime);
    host.phy_port = 0;
    entry->idleSecs = 0;
    entry->startOnLine = 0;
    entry->updateTime = 0;
    entry->phyPortId = 0;
    entry->informChange = 0;
}
