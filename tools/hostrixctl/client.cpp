#include "client.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "core/paths.h"
#include "core/unique_fd.h"
#include "protocol.h"

namespace {

// The daemon holds at most 256 hosts, four a reply; a few spare rounds cover
// hosts that arrive while we drain, without looping forever.
constexpr int kMaxInformRounds = 256 / static_cast<int>(kRecordsPerReply) + 4;
constexpr unsigned kLockTimeoutSec = 5;
constexpr size_t kFileReadChunk = size_t{16} * 1024;

std::string socketPath() {
    return hostrixPath(HostrixFile::ControlSocket);
}

std::string why() {
    return std::strerror(errno);
}

Outcome cannotReach(const std::string &path) {
    return Outcome::unreachable("cannot reach hostrix at " + path + ": " + why() +
                                "; is it running?");
}

void setTimeouts(int fd) {
    timeval timeout{kReplyTimeoutSec, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    // Bounds connect too, should the daemon's listen backlog be full.
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
}

Outcome connectControl(UniqueFd &fd) {
    std::string path = socketPath();
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path)
        return Outcome::unreachable("control socket path " + path +
                                    " is too long for a UNIX socket; use a shorter HOSTRIX_ROOT");
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    fd.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd.valid()) return Outcome::unreachable("cannot create a UNIX socket: " + why());
    setTimeouts(fd.get());
    if (connect(fd.get(), reinterpret_cast<sockaddr *>(&addr), sizeof addr) < 0)
        return cannotReach(path);
    return Outcome::success();
}

Outcome sendAll(int fd, const ctrlMsg_t &request) {
    const auto *bytes = reinterpret_cast<const uint8_t *>(&request);
    size_t sent = 0;
    while (sent < sizeof request) {
        ssize_t n = send(fd, bytes + sent, sizeof request - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0)
            return Outcome::unreachable("hostrix at " + socketPath() +
                                        " closed the connection before taking the request (" +
                                        why() + "); see its log");
        sent += static_cast<size_t>(n);
    }
    return Outcome::success();
}

Outcome shortReply(size_t got) {
    if (got == 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
        return Outcome::unreachable("hostrix at " + socketPath() + " did not answer within " +
                                    std::to_string(kReplyTimeoutSec) +
                                    " s; it may be stuck (see its log)");
    if (got == 0)
        return Outcome::unreachable("hostrix at " + socketPath() +
                                    " closed the connection without a reply; see its log");
    return Outcome::unreachable("hostrix at " + socketPath() + " broke off its reply after " +
                                std::to_string(got) + " of " + std::to_string(kCtrlMsgSize) +
                                " bytes; see its log");
}

Outcome receiveAll(int fd, ctrlMsg_t &reply) {
    auto *bytes = reinterpret_cast<uint8_t *>(&reply);
    size_t got = 0;
    while (got < sizeof reply) {
        errno = 0;
        ssize_t n = recv(fd, bytes + got, sizeof reply - got, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return shortReply(got);
        got += static_cast<size_t>(n);
    }
    return Outcome::success();
}

std::string hexText(uint32_t value) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%x", value);
    return text;
}

void onAlarm(int) {}

// A shared F_SETLKW lock, given up after a few seconds so that a stuck writer
// cannot hang us.
bool readLockWithTimeout(int fd) {
    struct sigaction wake {};
    struct sigaction saved {};
    wake.sa_handler = onAlarm;  // no SA_RESTART: the alarm interrupts the wait
    sigaction(SIGALRM, &wake, &saved);
    alarm(kLockTimeoutSec);
    struct flock lock {};
    lock.l_type = F_RDLCK;
    lock.l_whence = SEEK_SET;  // start 0, length 0: the whole file, as the daemon locks it
    int result = fcntl(fd, F_SETLKW, &lock);
    int saved_errno = errno;
    alarm(0);
    sigaction(SIGALRM, &saved, nullptr);
    errno = saved_errno;
    return result == 0;
}

Outcome lockFailure(const std::string &path) {
    std::string reason =
        errno == EINTR ? "still locked after " + std::to_string(kLockTimeoutSec) + " s" : why();
    return Outcome::unreachable("cannot lock the host file " + path + ": " + reason +
                                "; hostrix may be stuck");
}

void unlockFile(int fd) {
    struct flock lock {};
    lock.l_type = F_UNLCK;
    lock.l_whence = SEEK_SET;
    fcntl(fd, F_SETLK, &lock);
}

bool readAll(int fd, std::string &bytes) {
    char chunk[kFileReadChunk];
    for (;;) {
        ssize_t n = read(fd, chunk, sizeof chunk);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return false;
        if (n == 0) return true;
        bytes.append(chunk, static_cast<size_t>(n));
    }
}

Outcome fifoUnreachable(const std::string &path, const std::string &reason) {
    return Outcome::unreachable("cannot reach hostrix's debug FIFO at " + path + ": " + reason +
                                "; is it running?");
}

}  // namespace

Outcome exchange(const ctrlMsg_t &request, ctrlMsg_t &reply) {
    UniqueFd fd;
    Outcome step = connectControl(fd);
    if (step.ok()) step = sendAll(fd.get(), request);
    if (step.ok()) step = receiveAll(fd.get(), reply);
    return step;
}

Outcome drainInform(uint32_t cmd, std::vector<lanHostInfo_t> &hosts) {
    for (int round = 0; round < kMaxInformRounds; ++round) {
        ctrlMsg_t reply{};
        Outcome step = exchange(makeRequest(cmd), reply);
        if (!step.ok()) return step;
        if (reply.status != kCtrlStatusOk)
            return Outcome::failed("hostrix reported failure for inform query " + hexText(cmd) +
                                   "; see its log");
        std::vector<lanHostInfo_t> records = repliedRecords(reply);
        hosts.insert(hosts.end(), records.begin(), records.end());
        if (records.size() < kRecordsPerReply) break;
    }
    return Outcome::success();
}

Outcome readHostFile(std::string &bytes) {
    std::string path = hostrixPath(HostrixFile::HostInfo);
    UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.valid() && errno == ENOENT)
        return Outcome::unreachable("no host file at " + path + "; is hostrix running?");
    if (!fd.valid())
        return Outcome::unreachable("cannot open the host file " + path + ": " + why());
    if (!readLockWithTimeout(fd.get())) return lockFailure(path);
    bool complete = readAll(fd.get(), bytes);
    int saved_errno = errno;
    unlockFile(fd.get());
    errno = saved_errno;
    if (!complete) return Outcome::unreachable("cannot read the host file " + path + ": " + why());
    return Outcome::success();
}

Outcome writeFifoLevel(uint32_t level) {
    std::string path = hostrixPath(HostrixFile::Fifo);
    // Non-blocking: with no daemon reading, open fails (ENXIO) instead of waiting.
    UniqueFd fd(open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    if (!fd.valid()) return fifoUnreachable(path, why());
    struct stat info {};
    if (fstat(fd.get(), &info) < 0 || !S_ISFIFO(info.st_mode))
        return fifoUnreachable(path, "not a FIFO");
    char command[32];
    int length = std::snprintf(command, sizeof command, "log 0x%x\n", level);
    ssize_t written = write(fd.get(), command, static_cast<size_t>(length));
    if (written != length) return fifoUnreachable(path, written < 0 ? why() : "short write");
    return Outcome::success();
}
