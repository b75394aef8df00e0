// Limits, per-host attributes and the two event commands of the control socket.
// A command that can fail sets status 1 first and 0 once it has succeeded.
#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "control/ctrl_commands.h"
#include "core/log.h"
#include "hosts/host_table.h"
#include "hosts/liveness.h"
#include "platform/mib.h"

namespace {

constexpr size_t kTextFieldMax = kHostTextLen - 1;  // bytes a text setter takes
constexpr size_t kTextAreaSize = kCtrlDataSize - kCtrlTextOffset;
constexpr size_t kDottedIpSize = 20;
constexpr size_t kCommandLineSize = 512;
constexpr uint32_t kLowByte = 0xff;

uint8_t lowByte(uint32_t value) { return static_cast<uint8_t>(value & kLowByte); }

hostEntry *requestHost(const ctrlMsg_t *msg) { return getHostrixByMac(msg->data); }

// The text after the MAC; a client need not terminate it within data.
std::string_view requestText(const ctrlMsg_t *msg) {
    const char *text = reinterpret_cast<const char *>(msg->data + kCtrlTextOffset);
    return {text, strnlen(text, kTextAreaSize)};
}

std::string_view fieldText(const char (&field)[kHostTextLen]) {
    return {field, strnlen(field, sizeof field)};
}

// brand and devName: up to 63 bytes, zero-filled to 63; the 64th byte is not written.
void copyTextZeroFilled(char (&field)[kHostTextLen], std::string_view text) {
    size_t n = std::min(text.size(), kTextFieldMax);
    std::memcpy(field, text.data(), n);
    std::memset(field + n, 0, kTextFieldMax - n);
}

// model and os: up to 63 bytes and always terminated.
void copyTextTerminated(char (&field)[kHostTextLen], std::string_view text) {
    size_t n = std::min(text.size(), kTextFieldMax);
    std::memcpy(field, text.data(), n);
    field[n] = '\0';
}

using TextField = char (lanHostInfo_t::*)[kHostTextLen];
using TextCopy = void (*)(char (&)[kHostTextLen], std::string_view);

int setHostText(ctrlMsg_t *msg, TextField field, TextCopy copy) {
    msg->status = kCtrlStatusFailed;
    hostEntry *entry = requestHost(msg);
    if (!entry) return -1;
    copy(entry->lanHost.*field, requestText(msg));
    msg->status = kCtrlStatusOk;
    return 0;
}

// The reply holds only the text: the MAC is read, then the whole area cleared.
int getHostText(ctrlMsg_t *msg, TextField field) {
    msg->status = kCtrlStatusFailed;
    uint8_t mac[kCtrlMacLen];
    std::memcpy(mac, msg->data, sizeof mac);
    std::memset(msg->data, 0, sizeof msg->data);
    hostEntry *entry = getHostrixByMac(mac);
    if (!entry) return -1;
    std::string_view text = fieldText(entry->lanHost.*field);
    std::memcpy(msg->data + kCtrlTextOffset, text.data(), text.size());
    msg->status = kCtrlStatusOk;
    return 0;
}

int reportValue(ctrlMsg_t *msg, uint32_t value) {
    msg->arg1 = value;
    msg->status = kCtrlStatusOk;
    return 0;
}

int applyLimit(ctrlMsg_t *msg, int (*setLimit)(uint32_t)) {
    msg->status = kCtrlStatusFailed;
    if (setLimit(msg->arg1) != 0) return -1;
    msg->status = kCtrlStatusOk;
    return 0;
}

}  // namespace

int cfg_setMaxLanHostNum(ctrlMsg_t *msg, int32_t *) { return applyLimit(msg, setMaxLanHostNum); }
int cfg_getMaxLanHostNum(ctrlMsg_t *msg, int32_t *) { return reportValue(msg, maxLanHostNum); }
int cfg_getLanHostNum(ctrlMsg_t *msg, int32_t *) { return reportValue(msg, lanHostNum); }

int cfg_setMaxControlledNum(ctrlMsg_t *msg, int32_t *) {
    return applyLimit(msg, setMaxControlledNum);
}

int cfg_getMaxControlledNum(ctrlMsg_t *msg, int32_t *) {
    return reportValue(msg, maxControlledNum);
}

int cfg_getControlledNum(ctrlMsg_t *msg, int32_t *) { return reportValue(msg, controlledNum); }

int cfg_setLanHostControlled(ctrlMsg_t *msg, int32_t *) {
    msg->status = kCtrlStatusFailed;
    hostEntry *entry = requestHost(msg);
    if (!entry) return -1;
    setHostControlled(entry, lowByte(msg->arg1));
    msg->status = kCtrlStatusOk;
    return 0;
}

int cfg_getLanHostControlled(ctrlMsg_t *msg, int32_t *) {
    msg->status = kCtrlStatusFailed;
    hostEntry *entry = requestHost(msg);
    if (!entry) return -1;
    return reportValue(msg, entry->lanHost.controlled);
}

int setBlackListAction(hostEntry *entry) {
    if (!entry) return -1;
    _disConnLanHost(entry, __func__, __LINE__);
    HX_DBG(DBG_BLACKLIST, "[%s %d]:Invalidlan host(" MAC_FMT ")\n", __func__, __LINE__,
           MAC_ARGS(entry->lanHost.mac));
    return 0;
}

// Succeeds whether or not the host is known. Only an arg1 of exactly 0 blocks at
// once; 0x100 stores access 0 without disconnecting.
int cfg_setLanHostAccess(ctrlMsg_t *msg, int32_t *) {
    msg->status = kCtrlStatusFailed;
    hostEntry *entry = requestHost(msg);
    if (entry) {
        lanHostInfo_t &host = entry->lanHost;
        if (msg->arg1 == 0) setBlackListAction(entry);
        host.internetAccess = lowByte(msg->arg1);
        host.otherAccess = lowByte(msg->arg2);
        if (!(host.internetAccess > 1 && host.otherAccess != 0)) setHostControlled(entry, 1);
    }
    msg->status = kCtrlStatusOk;
    return 0;
}

int cfg_getLanHostAccess(ctrlMsg_t *msg, int32_t *) {
    msg->status = kCtrlStatusFailed;
    hostEntry *entry = requestHost(msg);
    if (!entry) return -1;
    msg->arg2 = entry->lanHost.otherAccess;
    return reportValue(msg, entry->lanHost.internetAccess);
}

int cfg_setDeviceType(ctrlMsg_t *msg, int32_t *) {
    msg->status = kCtrlStatusFailed;
    HX_DBG(DBG_BLACKLIST, "[%s %d]\n", __func__, __LINE__);
    hostEntry *entry = requestHost(msg);
    if (!entry) return -1;
    entry->lanHost.devType = lowByte(msg->arg1);
    msg->status = kCtrlStatusOk;
    return 0;
}

int cfg_getDeviceType(ctrlMsg_t *msg, int32_t *) {
    msg->status = kCtrlStatusFailed;
    hostEntry *entry = requestHost(msg);
    if (!entry) return -1;
    return reportValue(msg, entry->lanHost.devType);
}

int cfg_setLanHostBrand(ctrlMsg_t *msg, int32_t *) {
    return setHostText(msg, &lanHostInfo_t::brand, copyTextZeroFilled);
}

int cfg_getLanHostBrand(ctrlMsg_t *msg, int32_t *) {
    return getHostText(msg, &lanHostInfo_t::brand);
}

int cfg_setLanHostModel(ctrlMsg_t *msg, int32_t *) {
    return setHostText(msg, &lanHostInfo_t::model, copyTextTerminated);
}

int cfg_getLanHostModel(ctrlMsg_t *msg, int32_t *) {
    return getHostText(msg, &lanHostInfo_t::model);
}

int cfg_setLanHostOs(ctrlMsg_t *msg, int32_t *) {
    return setHostText(msg, &lanHostInfo_t::os, copyTextTerminated);
}

int cfg_getLanHostOs(ctrlMsg_t *msg, int32_t *) { return getHostText(msg, &lanHostInfo_t::os); }

// A new name is reported by the next inform-change query; the same name is not.
int cfg_setLanHostDevName(ctrlMsg_t *msg, int32_t *) {
    msg->status = kCtrlStatusFailed;
    hostEntry *entry = requestHost(msg);
    if (!entry) return -1;
    char name[kHostTextLen] = {};
    copyTextZeroFilled(name, requestText(msg));
    if (std::strncmp(entry->lanHost.devName, name, sizeof name) != 0) {
        copyTextZeroFilled(entry->lanHost.devName, fieldText(name));
        entry->informChange = 1;
    }
    msg->status = kCtrlStatusOk;
    return 0;
}

int cfg_setLanHostLinkChangePort(ctrlMsg_t *msg, int32_t *) {
    msg->status = kCtrlStatusFailed;
    HX_DBG(DBG_COMMAND, "[%s %d] portIdx =%d\n", __func__, __LINE__,
           static_cast<int>(msg->arg1));
    if (disableHostrixByPortIdx(lowByte(msg->arg1)) != 0) return -1;
    msg->status = kCtrlStatusOk;
    return 0;
}

namespace {

// Slot order and MAC only: a departed host still in the table is released too.
// The zero MAC names no host; matching it would "release" a free slot.
hostEntry *findReleasedHost(const uint8_t *mac) {
    if (isZeroMac(mac)) return nullptr;
    for (hostEntry &entry : hostPool) {
        if (std::memcmp(entry.lanHost.mac, mac, kCtrlMacLen) == 0) return &entry;
    }
    return nullptr;
}

void deleteArpEntry(uint32_t ip) {
    in_addr addr{};
    addr.s_addr = ip;
    char dotted[kDottedIpSize];
    inet_ntop(AF_INET, &addr, dotted, sizeof dotted);
    char line[kCommandLineSize];
    std::snprintf(line, sizeof line, "arp -d %s", dotted);
    va_cmd("/bin/sh", 2, 1, "-c", line);
}

}  // namespace

int cfg_setLanHostDhcpReleaseIP(ctrlMsg_t *msg, int32_t *) {
    HX_DBG(DBG_COMMAND, "[%s %d] Release Mac=" MAC_FMT "\n", __func__, __LINE__,
           MAC_ARGS(msg->data));
    hostEntry *entry = findReleasedHost(msg->data);
    if (entry) {
        deleteArpEntry(entry->lanHost.ip);
        _disConnLanHost(entry, __func__, __LINE__);
    }
    msg->status = kCtrlStatusOk;
    return 0;
}
