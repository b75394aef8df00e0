#include "hook_socket.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "core/unique_fd.h"

namespace {

constexpr suseconds_t kMicrosPerMilli = 1000;

// The daemon is simply not running: no socket file, or nobody listening on it.
bool daemonAbsent(int error) {
    return error == ENOENT || error == ECONNREFUSED;
}

// Connects FD to PATH; 0, or the errno of the step that failed. On a UNIX socket
// SO_SNDTIMEO bounds connect as well as send.
int connectWithin(const char *path, UniqueFd &fd) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    size_t length = std::strlen(path);
    if (length >= sizeof addr.sun_path) return ENAMETOOLONG;
    std::memcpy(addr.sun_path, path, length + 1);
    fd.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    timeval timeout{0, kHookTimeoutMs * kMicrosPerMilli};
    if (!fd.valid() ||
        setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout) < 0 ||
        connect(fd.get(), reinterpret_cast<sockaddr *>(&addr), sizeof addr) < 0)
        return errno;
    return 0;
}

// 0, or the errno that ended the delivery; a send cut short timed out.
int deliver(const char *path, const void *bytes, size_t size) {
    UniqueFd fd;
    if (int error = connectWithin(path, fd)) return error;
    // One send: the daemon reads each message with one receive.
    ssize_t sent = send(fd.get(), bytes, size, MSG_NOSIGNAL);
    if (sent < 0) return errno;
    return sent == static_cast<ssize_t>(size) ? 0 : EAGAIN;
}

// A timed-out connect or send reads EAGAIN, which says nothing useful.
const char *reason(int error) {
    return error == EAGAIN ? "the daemon did not take it in time" : std::strerror(error);
}

}  // namespace

void sendToDaemon(const char *hook, HostrixFile file, const void *bytes, size_t size) {
    const char *path = hostrixPath(file);
    int error = deliver(path, bytes, size);
    if (error == 0 || daemonAbsent(error)) return;
    std::fprintf(stderr, "%s: not delivered to hostrix at %s: %s\n", hook, path, reason(error));
}
