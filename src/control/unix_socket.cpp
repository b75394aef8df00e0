#include "control/unix_socket.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

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

int setReceiveTimeout(int fd, int seconds) {
    timeval timeout{};
    timeout.tv_sec = seconds;
    return setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
}
