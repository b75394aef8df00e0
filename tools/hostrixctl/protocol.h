// Building control requests and reading replies and the host file. Pure: the
// socket and file I/O live in client.cpp.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "args.h"
#include "control/ctrl_msg.h"
#include "hosts/lanhost.h"

// Longest text the daemon stores in a 64-byte field.
inline constexpr size_t kMaxHostText = kHostTextLen - 1;
inline constexpr size_t kRecordsPerReply = kCtrlDataSize / kLanHostInfoSize;

// A request for CMD that wants a reply. Its status is "failure", so that a
// command the daemon skips (it echoes status untouched) reads as failed.
ctrlMsg_t makeRequest(uint32_t cmd);
void putMac(ctrlMsg_t &msg, const MacAddress &mac);
// TEXT at data byte 6, cut to what the daemon keeps, NUL-terminated.
void putText(ctrlMsg_t &msg, std::string_view text);

// The daemon runs a handler only if the text after the MAC, up to its first NUL, CR
// or LF, holds bytes 0x20..0x7e alone. Returns the offset of the first byte that
// fails, if any.
std::optional<size_t> firstRejectedByte(const ctrlMsg_t &msg);

// The text a per-host getter left at data byte 6.
std::string replyText(const ctrlMsg_t &msg);

// Records packed from data byte 0; a slot with an all-zero MAC ends the list.
std::vector<lanHostInfo_t> repliedRecords(const ctrlMsg_t &msg);
// Whole 944-byte records in file order; a trailing partial record is ignored.
std::vector<lanHostInfo_t> fileRecords(std::string_view bytes);
const lanHostInfo_t *findHost(const std::vector<lanHostInfo_t> &hosts, const MacAddress &mac);
// A pointer into a temporary list would dangle.
const lanHostInfo_t *findHost(std::vector<lanHostInfo_t> &&hosts, const MacAddress &mac) = delete;
