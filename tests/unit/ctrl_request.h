// Control requests for the command tests.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <string_view>

#include "control/ctrl_commands.h"
#include "core/unique_fd.h"
#include "fixture.h"

// A first octet of 0x00 always passes the text check on data.
inline fake::Mac checkedMac(uint8_t last) {
    return fake::mac(0x00, 0x11, 0x22, 0x33, 0x44, last);
}

inline ctrlMsg_t ctrlRequest(uint32_t cmd, const fake::Mac &mac = {}, uint32_t arg1 = 0,
                             uint32_t arg2 = 0, std::string_view text = {}) {
    ctrlMsg_t msg{};
    msg.cmd = cmd;
    msg.arg1 = arg1;
    msg.arg2 = arg2;
    msg.needReply = 1;
    std::memcpy(msg.data, mac.data(), mac.size());
    text.copy(reinterpret_cast<char *>(msg.data + kCtrlTextOffset), text.size());
    return msg;
}

// MSG as the dispatcher leaves it, its status preset to STATUS.
inline ctrlMsg_t dispatched(ctrlMsg_t msg, uint32_t status = 0) {
    msg.status = status;
    dispatchCtrlMsg(msg);
    return msg;
}

inline fake::Mac recordMac(const ctrlMsg_t &msg, size_t index) {
    fake::Mac mac;
    std::memcpy(mac.data(), msg.data + index * kLanHostInfoSize, mac.size());
    return mac;
}

inline bool allZero(const uint8_t *bytes, size_t size) {
    return std::all_of(bytes, bytes + size, [](uint8_t b) { return b == 0; });
}

// A client connected to the Unix stream socket at PATH.
inline UniqueFd connectTo(const char *path) {
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un addr{AF_UNIX, {}};
    std::strncpy(addr.sun_path, path, sizeof addr.sun_path - 1);
    EXPECT_EQ(connect(fd.get(), reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    return fd;
}
