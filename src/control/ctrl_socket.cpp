#include "control/ctrl_socket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "core/log.h"
#include "core/paths.h"
#include "core/unique_fd.h"

namespace {

constexpr int kListenBacklog = 128;

UniqueFd listenFd;

int fail(const char *message) {
    logPlain("%s", message);
    return -1;
}

// "<what> error!(<reason>)", the form every socket set-up message takes.
int failErrno(const char *what) {
    logPlain("%s error!(%s)\n", what, std::strerror(errno));
    return -1;
}

int bindControlPath(int fd) {
    const char *path = hostrixPath(HostrixFile::ControlSocket);
    unlink(path);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    size_t length = std::strlen(path);
    if (length >= sizeof addr.sun_path) {
        errno = ENAMETOOLONG;
        return -1;
    }
    std::memcpy(addr.sun_path, path, length + 1);
    return bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
}

// Doubles the receive buffer and gives the send buffer the same size, beyond the
// system limits, so that bursts of requests are not refused.
int growBuffers(int fd) {
    int size = 0;
    socklen_t len = sizeof size;
    if (getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, &len) < 0)
        return failErrno("getsockopt");
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

}  // namespace

int msgSockFd() { return listenFd.get(); }

int msg_create_sockfd() {
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd.valid()) return fail("socket create error!\n");
    int on = 1;
    if (setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) < 0)
        return failErrno("setsockopt");
    if (bindControlPath(fd.get()) < 0) return failErrno("bind");
    if (listen(fd.get(), kListenBacklog) < 0) return fail("listen error!\n");
    if (growBuffers(fd.get()) < 0 || makeNonBlocking(fd.get()) < 0) return -1;
    listenFd = std::move(fd);
    return listenFd.get();
}

// Requests are served with the control commands; until then a connection is
// accepted and closed so that it does not stay pending.
int msg_process_sockfd(int fd) {
    UniqueFd conn(accept(fd, nullptr, nullptr));
    return 0;
}
