#include "control/ctrl_socket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <string_view>

#include "control/ctrl_commands.h"
#include "control/unix_socket.h"
#include "core/clock.h"
#include "core/log.h"
#include "core/paths.h"
#include "core/text.h"
#include "core/unique_fd.h"

namespace {

constexpr int kConnTimeoutSecs = 1;
constexpr uint32_t kInformQueryBits = CMD_GET_NEW_DEVICE | CMD_GET_LEAVE_DEVICE;
// The dispatcher's log lines name the operation that serves the connection.
constexpr const char *kServeName = "msg_process_sockfd";

// Scan order, not bit order: the name setter (bit 27) runs between 0x80000 and
// 0x100000, so a changed name is reported by the same message's change query.
constexpr ctrlCmdRow kCommandTable[] = {
    {CMD_GET_NEW_DEVICE, cfg_getNewDeviceInform},
    {CMD_GET_LEAVE_DEVICE, cfg_getLeaveDeviceInform},
    {CMD_SET_MAX_HOSTS, cfg_setMaxLanHostNum},
    {CMD_GET_MAX_HOSTS, cfg_getMaxLanHostNum},
    {CMD_GET_HOST_NUM, cfg_getLanHostNum},
    {CMD_SET_MAX_CONTROLLED, cfg_setMaxControlledNum},
    {CMD_GET_MAX_CONTROLLED, cfg_getMaxControlledNum},
    {CMD_GET_CONTROLLED_NUM, cfg_getControlledNum},
    {CMD_SET_CONTROLLED, cfg_setLanHostControlled},
    {CMD_GET_CONTROLLED, cfg_getLanHostControlled},
    {CMD_SET_ACCESS, cfg_setLanHostAccess},
    {CMD_GET_ACCESS, cfg_getLanHostAccess},
    {CMD_SET_DEVICE_TYPE, cfg_setDeviceType},
    {CMD_GET_DEVICE_TYPE, cfg_getDeviceType},
    {CMD_SET_BRAND, cfg_setLanHostBrand},
    {CMD_GET_BRAND, cfg_getLanHostBrand},
    {CMD_SET_MODEL, cfg_setLanHostModel},
    {CMD_GET_MODEL, cfg_getLanHostModel},
    {CMD_SET_OS, cfg_setLanHostOs},
    {CMD_GET_OS, cfg_getLanHostOs},
    {CMD_SET_DEV_NAME, cfg_setLanHostDevName},
    {CMD_GET_INFORM_CHANGE, cfg_getLanHostInformChange},
    {CMD_SET_LINK_CHANGE_PORT, cfg_setLanHostLinkChangePort},
    {CMD_SET_DHCP_RELEASE, cfg_setLanHostDhcpReleaseIP},
    {0, nullptr},
};

UniqueFd listenFd;

// "<what> error!(<reason>)", the form every socket set-up message takes.
int failErrno(const char *what) {
    logPlain("%s error!(%s)\n", what, std::strerror(errno));
    return -1;
}

// Doubles the receive buffer and gives the send buffer the same size, beyond the
// system limits, so that bursts of requests are not refused.
int growBuffers(int fd) {
    int size = 0;
    socklen_t len = sizeof size;
    if (getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, &len) < 0) return failErrno("getsockopt");
    size *= 2;
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) < 0 ||
        setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &size, sizeof size) < 0)
        return failErrno("setsockopt");
    return 0;
}

int makeNonBlocking(int fd) {
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0) return 0;  // stays blocking; accept is only called when readable
    if (fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) return failErrno("fcntl");
    return 0;
}

// The text a per-host request carries after its MAC. The MAC's own bytes are not
// text: checking them would make most real MACs unreachable.
bool dataIsPrintable(const ctrlMsg_t &msg) {
    return isPrintableString(std::string_view(
        reinterpret_cast<const char *>(msg.data) + kCtrlMacLen, sizeof msg.data - kCtrlMacLen));
}

void runCommand(ctrlMsg_t &msg, const ctrlCmdRow &row, int32_t *dataLen) {
    HX_DBG(DBG_MESSAGE, "hostrix exec CMD(%x)\n", msg.cmd);
    // Each handler is checked against data as the handlers before it left it.
    if (!dataIsPrintable(msg)) return;
    row.handler(&msg, dataLen);
}

// A client that does not read its reply holds the main loop for at most this long.
void setSendTimeout(int fd) {
    timeval timeout{kConnTimeoutSecs, 0};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
}

// MSG_NOSIGNAL: a client gone before its reply costs a failed send, never SIGPIPE.
void sendReply(int fd, const ctrlMsg_t &msg) {
    ssize_t sent = send(fd, &msg, sizeof msg, MSG_NOSIGNAL);
    if (sent == static_cast<ssize_t>(sizeof msg)) return;
    HX_DBG(DBG_MESSAGE, "[%s %d]: Send fail for cmd=0x%x, size=%d(%zd)\n", kServeName, __LINE__,
           msg.cmd, static_cast<int>(sent), static_cast<ssize_t>(sizeof msg));
}

}  // namespace

namespace {

struct WaitingConn {
    UniqueFd fd;
    int64_t sinceMs = 0;
};

std::array<WaitingConn, kMaxWaitingConns> waitingConns;

// Takes the first free slot, or the oldest one's.
void park(UniqueFd conn) {
    WaitingConn *slot = &waitingConns[0];
    for (WaitingConn &waiting : waitingConns) {
        if (!waiting.fd.valid()) {
            slot = &waiting;
            break;
        }
        if (waiting.sinceMs < slot->sinceMs) slot = &waiting;
    }
    slot->fd = std::move(conn);
    slot->sinceMs = monotonicMilliseconds();
}

// One read: a short request is served as it is, the missing bytes left zero. False
// when nothing has come yet.
bool serveRequest(int conn) {
    ctrlMsg_t msg{};
    ssize_t got = recv(conn, &msg, sizeof msg, MSG_DONTWAIT);
    if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return false;
    if (got <= 0) return true;
    dispatchCtrlMsg(msg);
    if (msg.needReply) sendReply(conn, msg);
    return true;
}

}  // namespace

int msgSockFd() {
    return listenFd.get();
}

int msg_create_sockfd() {
    UniqueFd fd = listenAtPath(HostrixFile::ControlSocket, ReuseAddrMessage::WithReason);
    if (!fd.valid()) return -1;
    if (growBuffers(fd.get()) < 0 || makeNonBlocking(fd.get()) < 0) return -1;
    listenFd = std::move(fd);
    return listenFd.get();
}

void msg_close_sockfd() {
    listenFd.reset();
    for (WaitingConn &waiting : waitingConns) waiting.fd.reset();
}

std::span<const ctrlCmdRow> ctrlCommandTable() {
    return {kCommandTable, std::size(kCommandTable) - 1};
}

void dispatchCtrlMsg(ctrlMsg_t &msg) {
    int32_t dataLen = 0;
    msg.replyTag = msg.status;
    HX_DBG(DBG_MESSAGE, "[%s %d]: cmd=0x%x\n", kServeName, __LINE__, msg.cmd);
    // The inform queries fill data with records; what the client sent there goes.
    if (msg.cmd & kInformQueryBits) std::memset(msg.data, 0, sizeof msg.data);
    for (const ctrlCmdRow *row = kCommandTable; row->bit != 0; ++row) {
        if (msg.cmd & row->bit) runCommand(msg, *row, &dataLen);
    }
}


int msg_process_sockfd(int fd) {
    sockaddr_un peer{};
    socklen_t peerLen = sizeof peer;
    UniqueFd conn(accept4(fd, reinterpret_cast<sockaddr *>(&peer), &peerLen, SOCK_CLOEXEC));
    if (!conn.valid()) return 0;
    setSendTimeout(conn.get());
    // Beyond select's reach a connection cannot wait; it is served or dropped now.
    if (!serveRequest(conn.get()) && conn.get() < FD_SETSIZE) park(std::move(conn));
    return 0;
}

void ctrlWaitingAddToSet(fd_set &set, int &highest) {
    for (const WaitingConn &waiting : waitingConns) {
        if (!waiting.fd.valid()) continue;
        FD_SET(waiting.fd.get(), &set);
        highest = std::max(highest, waiting.fd.get());
    }
}

void ctrlServeWaiting(const fd_set &set) {
    for (WaitingConn &waiting : waitingConns) {
        if (waiting.fd.valid() && FD_ISSET(waiting.fd.get(), &set) && serveRequest(waiting.fd.get()))
            waiting.fd.reset();
    }
}

void ctrlDropStaleWaiting(int64_t nowMs) {
    for (WaitingConn &waiting : waitingConns) {
        if (waiting.fd.valid() && nowMs - waiting.sinceMs >= kConnWaitMs) waiting.fd.reset();
    }
}

size_t ctrlWaitingCount() {
    size_t count = 0;
    for (const WaitingConn &waiting : waitingConns) count += waiting.fd.valid() ? 1 : 0;
    return count;
}
