// The control socket's wire format: one 4136-byte message each way, integers in the
// host's byte order. Shared with the client, so it depends on nothing else here.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr size_t kCtrlMsgSize = 4136;
inline constexpr size_t kCtrlDataSize = 4096;
inline constexpr size_t kCtrlMacLen = 6;
inline constexpr size_t kCtrlTextOffset = 6;  // a per-host text follows the MAC in data

struct ctrlMsg_t {
    uint64_t replyTag;  // the request's status, copied before any handler runs
    uint64_t status;    // 0 success, 1 failure on output
    uint64_t reserved;
    uint8_t needReply;
    uint8_t pad[3];
    uint32_t cmd;  // bit mask of commands
    uint32_t arg1;
    uint32_t arg2;
    uint8_t data[kCtrlDataSize];  // MAC and text, or packed host records
};

static_assert(sizeof(ctrlMsg_t) == kCtrlMsgSize);
static_assert(offsetof(ctrlMsg_t, replyTag) == 0);
static_assert(offsetof(ctrlMsg_t, status) == 8);
static_assert(offsetof(ctrlMsg_t, reserved) == 16);
static_assert(offsetof(ctrlMsg_t, needReply) == 24);
static_assert(offsetof(ctrlMsg_t, cmd) == 28);
static_assert(offsetof(ctrlMsg_t, arg1) == 32);
static_assert(offsetof(ctrlMsg_t, arg2) == 36);
static_assert(offsetof(ctrlMsg_t, data) == 40);

// Command bits, in the order the daemon runs them (not bit order: 0x8000000 is
// the name setter and runs between 0x80000 and 0x100000).
enum : uint32_t {
    CMD_GET_NEW_DEVICE = 0x1,
    CMD_GET_LEAVE_DEVICE = 0x2,
    CMD_SET_MAX_HOSTS = 0x4,
    CMD_GET_MAX_HOSTS = 0x8,
    CMD_GET_HOST_NUM = 0x10,
    CMD_SET_MAX_CONTROLLED = 0x20,
    CMD_GET_MAX_CONTROLLED = 0x40,
    CMD_GET_CONTROLLED_NUM = 0x80,
    CMD_SET_CONTROLLED = 0x100,
    CMD_GET_CONTROLLED = 0x200,
    CMD_SET_ACCESS = 0x400,
    CMD_GET_ACCESS = 0x800,
    CMD_SET_DEVICE_TYPE = 0x1000,
    CMD_GET_DEVICE_TYPE = 0x2000,
    CMD_SET_BRAND = 0x4000,
    CMD_GET_BRAND = 0x8000,
    CMD_SET_MODEL = 0x10000,
    CMD_GET_MODEL = 0x20000,
    CMD_SET_OS = 0x40000,
    CMD_GET_OS = 0x80000,
    CMD_SET_DEV_NAME = 0x8000000,
    CMD_GET_INFORM_CHANGE = 0x100000,
    CMD_SET_LINK_CHANGE_PORT = 0x200000,
    CMD_SET_DHCP_RELEASE = 0x800000,
};

inline constexpr uint64_t kCtrlStatusOk = 0;
inline constexpr uint64_t kCtrlStatusFailed = 1;
