#include "control/unix_socket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "core/log.h"
#include "platform/os.h"

namespace {

constexpr int kListenBacklog = 128;
constexpr mode_t kOwnerOnlyMode = 0600;
constexpr mode_t kOwnerAndGroupMode = 0660;

UniqueFd setupFailed(const char *message) {
    logPlain("%s", message);
    return UniqueFd();
}

UniqueFd setupFailedWithReason(const char *what) {
    logPlain("%s error!(%s)\n", what, std::strerror(errno));
    return UniqueFd();
}

}  // namespace

int bindUnixPath(int fd, HostrixFile file) {
    const char *path = hostrixPath(file);
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

// The mode is set by path after bind, whatever the umask made of it: until listen
// nobody can connect, so there is no window with a wider mode. A group that cannot be
// given leaves the file to root alone.
int restrictToDaemon(const char *path) {
    const int group = os_socket_group();
    const bool shared =
        group >= 0 && chown(path, static_cast<uid_t>(-1), static_cast<gid_t>(group)) == 0;
    return chmod(path, shared ? kOwnerAndGroupMode : kOwnerOnlyMode);
}

int setReceiveTimeout(int fd, int seconds) {
    timeval timeout{};
    timeout.tv_sec = seconds;
    return setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
}

UniqueFd listenAtPath(HostrixFile file, ReuseAddrMessage reuseMessage) {
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd.valid()) return setupFailed("socket create error!\n");
    int on = 1;
    if (setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) < 0) {
        fd.reset();  // the socket is closed before the message is printed
        return reuseMessage == ReuseAddrMessage::WithReason ? setupFailedWithReason("setsockopt")
                                                            : setupFailed("setsockopt error!\n");
    }
    if (bindUnixPath(fd.get(), file) < 0) return setupFailedWithReason("bind");
    if (restrictToDaemon(hostrixPath(file)) < 0) return setupFailedWithReason("chmod");
    if (listen(fd.get(), kListenBacklog) < 0) return setupFailed("listen error!\n");
    return fd;
}
