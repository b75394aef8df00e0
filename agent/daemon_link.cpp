#include "daemon_link.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <signal.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "core/paths.h"
#include "core/unique_fd.h"
#include "protocol.h"

namespace {

constexpr int kMaxDrainRounds = 256 / static_cast<int>(kRecordsPerReply) + 4;
constexpr suseconds_t kMicrosPerMilli = 1000;
constexpr size_t kMaxHostFile = 256 * kLanHostInfoSize;

UniqueFd connectControl() {
    const char *path = hostrixPath(HostrixFile::ControlSocket);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (std::strlen(path) >= sizeof addr.sun_path) return {};
    std::strcpy(addr.sun_path, path);
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    timeval timeout{kDaemonTimeoutMs / 1000, (kDaemonTimeoutMs % 1000) * kMicrosPerMilli};
    if (!fd.valid() || setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout) < 0 ||
        setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout) < 0 ||
        connect(fd.get(), reinterpret_cast<sockaddr *>(&addr), sizeof addr) < 0)
        return {};
    return fd;
}

bool transfer(int fd, void *bytes, size_t size, bool sending) {
    auto *at = static_cast<uint8_t *>(bytes);
    size_t done = 0;
    while (done < size) {
        ssize_t n = sending ? send(fd, at + done, size - done, MSG_NOSIGNAL)
                            : recv(fd, at + done, size - done, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

// A whole-file read lock if it can be had at once: the daemon never waits for its
// readers, and the agent does not wait for the daemon either.
bool tryReadLock(int fd) {
    struct flock lock {};
    lock.l_type = F_RDLCK;
    lock.l_whence = SEEK_SET;
    return fcntl(fd, F_SETLK, &lock) == 0;
}

bool readBounded(int fd, std::string &bytes) {
    char chunk[16 * 1024];
    for (;;) {
        ssize_t n = read(fd, chunk, sizeof chunk);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return n == 0;
        bytes.append(chunk, static_cast<size_t>(n));
        if (bytes.size() > kMaxHostFile) return false;
    }
}

}  // namespace

bool daemonExchange(const ctrlMsg_t &request, ctrlMsg_t &reply) {
    UniqueFd fd = connectControl();
    ctrlMsg_t copy = request;
    return fd.valid() && transfer(fd.get(), &copy, sizeof copy, true) &&
           transfer(fd.get(), &reply, sizeof reply, false);
}

bool drainReports(uint32_t cmd, std::vector<lanHostInfo_t> &hosts) {
    for (int round = 0; round < kMaxDrainRounds; ++round) {
        ctrlMsg_t reply{};
        if (!daemonExchange(makeRequest(cmd), reply)) return false;
        std::vector<lanHostInfo_t> records = repliedRecords(reply);
        hosts.insert(hosts.end(), records.begin(), records.end());
        if (records.size() < kRecordsPerReply) break;
    }
    return true;
}

std::optional<SocketIdentity> controlSocketIdentity() {
    struct stat info {};
    if (stat(hostrixPath(HostrixFile::ControlSocket), &info) < 0) return std::nullopt;
    return SocketIdentity{info.st_ino, info.st_ctim.tv_sec * 1000000000LL + info.st_ctim.tv_nsec};
}

std::optional<HostFileRead> readHostFileIfNewer(int64_t lastWritten) {
    UniqueFd fd(open(hostrixPath(HostrixFile::HostInfo), O_RDONLY | O_CLOEXEC));
    struct stat info {};
    if (!fd.valid() || fstat(fd.get(), &info) < 0 || info.st_mtime == lastWritten)
        return std::nullopt;
    if (!tryReadLock(fd.get())) return std::nullopt;
    std::string bytes;
    if (!readBounded(fd.get(), bytes)) return std::nullopt;
    return HostFileRead{fileRecords(bytes), info.st_mtime};
}

bool askForFreshHostFile() {
    UniqueFd fd(open(hostrixPath(HostrixFile::PidFile), O_RDONLY | O_CLOEXEC));
    char text[32] = {};
    if (!fd.valid() || read(fd.get(), text, sizeof text - 1) <= 0) return false;
    long pid = std::strtol(text, nullptr, 10);
    return pid > 1 && kill(static_cast<pid_t>(pid), SIGUSR2) == 0;
}

std::optional<std::string> getHostText(uint32_t cmd, const uint8_t *mac) {
    ctrlMsg_t request = makeRequest(cmd), reply{};
    std::memcpy(request.data, mac, kCtrlMacLen);
    if (!daemonExchange(request, reply) || reply.status != kCtrlStatusOk) return std::nullopt;
    return replyText(reply);
}

bool setHostText(uint32_t cmd, const uint8_t *mac, std::string_view text) {
    ctrlMsg_t request = makeRequest(cmd), reply{};
    std::memcpy(request.data, mac, kCtrlMacLen);
    putText(request, text);
    return daemonExchange(request, reply) && reply.status == kCtrlStatusOk;
}
