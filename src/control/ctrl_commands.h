// The control commands: the ordered command table, its dispatcher and every
// handler. Handlers run on the main thread on one request buffer, in table order.
#pragma once

#include <cstdint>
#include <span>

#include "control/ctrl_msg.h"
#include "hosts/lanhost.h"

// DATA_LEN is the running byte count of the records already written into data
// for this message; the inform queries append at it and store the new count.
using ctrlHandler_t = int (*)(ctrlMsg_t *msg, int32_t *dataLen);

struct ctrlCmdRow {
    uint32_t bit;
    ctrlHandler_t handler;
};

// The rows in scan order, without the terminating row.
std::span<const ctrlCmdRow> ctrlCommandTable();

// Runs every command whose bit is set in msg.cmd, in table order, on MSG; a
// handler is skipped when data fails the text check at that moment. MSG comes
// back as the reply: replyTag holds the request's status.
void dispatchCtrlMsg(ctrlMsg_t &msg);

// Inform queries: records of new, departed and changed hosts.
int cfg_getNewDeviceInform(ctrlMsg_t *msg, int32_t *dataLen);
int cfg_getLeaveDeviceInform(ctrlMsg_t *msg, int32_t *dataLen);
int cfg_getLanHostInformChange(ctrlMsg_t *msg, int32_t *dataLen);
// Clears the connection data of a departed host whose entry stays in the table.
void resetLeftLanHost(hostEntry *entry);

// Limits.
int cfg_setMaxLanHostNum(ctrlMsg_t *msg, int32_t *dataLen);
int cfg_getMaxLanHostNum(ctrlMsg_t *msg, int32_t *dataLen);
int cfg_getLanHostNum(ctrlMsg_t *msg, int32_t *dataLen);
int cfg_setMaxControlledNum(ctrlMsg_t *msg, int32_t *dataLen);
int cfg_getMaxControlledNum(ctrlMsg_t *msg, int32_t *dataLen);
int cfg_getControlledNum(ctrlMsg_t *msg, int32_t *dataLen);

// Per-host attributes; the host is named by the MAC in data bytes 0..5.
int cfg_setLanHostControlled(ctrlMsg_t *msg, int32_t *dataLen);
int cfg_getLanHostControlled(ctrlMsg_t *msg, int32_t *dataLen);
int cfg_setLanHostAccess(ctrlMsg_t *msg, int32_t *dataLen);
int cfg_getLanHostAccess(ctrlMsg_t *msg, int32_t *dataLen);
int cfg_setDeviceType(ctrlMsg_t *msg, int32_t *dataLen);
int cfg_getDeviceType(ctrlMsg_t *msg, int32_t *dataLen);
int cfg_setLanHostBrand(ctrlMsg_t *msg, int32_t *dataLen);
int cfg_getLanHostBrand(ctrlMsg_t *msg, int32_t *dataLen);
int cfg_setLanHostModel(ctrlMsg_t *msg, int32_t *dataLen);
int cfg_getLanHostModel(ctrlMsg_t *msg, int32_t *dataLen);
int cfg_setLanHostOs(ctrlMsg_t *msg, int32_t *dataLen);
int cfg_getLanHostOs(ctrlMsg_t *msg, int32_t *dataLen);
int cfg_setLanHostDevName(ctrlMsg_t *msg, int32_t *dataLen);

// Events the daemon cannot see itself: a port's link-down, a DHCP release.
int cfg_setLanHostLinkChangePort(ctrlMsg_t *msg, int32_t *dataLen);
int cfg_setLanHostDhcpReleaseIP(ctrlMsg_t *msg, int32_t *dataLen);

// Takes a host that has just been blocked offline; -1 for a null entry.
int setBlackListAction(hostEntry *entry);
