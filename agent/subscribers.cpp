#include "subscribers.h"

#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "agent_paths.h"
#include "log.h"

namespace {

constexpr int kBacklog = 64;
constexpr size_t kReadChunk = 4096;
constexpr mode_t kOwnerOnly = 0600, kOwnerAndGroup = 0660;

std::string errnoText() { return std::strerror(errno); }

// The mode is set after bind, before anyone can connect, whatever the umask made
// of it; a group that cannot be given leaves the socket to its owner alone.
bool restrictMode(const std::string &path, const std::string &group, std::string &why) {
    bool shared = false;
    if (!group.empty()) {
        const struct group *entry = getgrnam(group.c_str());
        if (!entry) agentLog("socket_group '" + group + "' is not a known group; " + path + " stays 0600");
        shared = entry && chown(path.c_str(), static_cast<uid_t>(-1), entry->gr_gid) == 0;
    }
    if (chmod(path.c_str(), shared ? kOwnerAndGroup : kOwnerOnly) == 0) return true;
    why = "chmod " + path + ": " + errnoText();
    return false;
}

UniqueFd bindAt(int type, const std::string &path, const std::string &group, std::string &why) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path) {
        why = path + " is too long for a UNIX socket";
        return {};
    }
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    makeParentFolders(path);
    UniqueFd fd(socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    unlink(path.c_str());
    if (!fd.valid() || bind(fd.get(), reinterpret_cast<sockaddr *>(&addr), sizeof addr) < 0) {
        why = "bind " + path + ": " + errnoText();
        return {};
    }
    if (!restrictMode(path, group, why)) return {};
    return fd;
}

}  // namespace

UniqueFd listenUnix(const std::string &path, const std::string &group, std::string &why) {
    UniqueFd fd = bindAt(SOCK_STREAM, path, group, why);
    if (fd.valid() && listen(fd.get(), kBacklog) < 0) {
        why = "listen " + path + ": " + errnoText();
        return {};
    }
    return fd;
}

UniqueFd bindUnixDatagram(const std::string &path, const std::string &group, std::string &why) {
    return bindAt(SOCK_DGRAM, path, group, why);
}

SubscriberHub::SubscriberHub(UniqueFd listener, Greeter greeter)
    : listener_(std::move(listener)), greeter_(std::move(greeter)) {}

void SubscriberHub::addPollFds(std::vector<pollfd> &fds) const {
    fds.push_back({listener_.get(), POLLIN, 0});
    for (const auto &client : clients_) {
        short events = POLLIN;
        if (client->sent < client->output.size()) events |= POLLOUT;
        fds.push_back({client->fd.get(), events, 0});
    }
}

void SubscriberHub::serve(const std::vector<pollfd> &fds, size_t first, int64_t nowMono) {
    // The clients as they were when the poll set was built; accept comes last, so
    // the indices still match.
    for (size_t i = 0; i < clients_.size() && first + 1 + i < fds.size(); ++i) {
        Client &client = *clients_[i];
        short revents = fds[first + 1 + i].revents;
        if (revents & (POLLIN | POLLHUP | POLLERR)) readFrom(client);
        if (!client.dropped && (revents & POLLOUT)) flush(client);
        if (!client.dropped && !client.live && nowMono - client.connectedAt >= kRequestWaitSeconds)
            drop(client, "sent no request within " + std::to_string(kRequestWaitSeconds) + " s");
    }
    std::erase_if(clients_, [](const auto &client) { return client->dropped; });
    if (first < fds.size() && (fds[first].revents & POLLIN)) accept(nowMono);
}

void SubscriberHub::accept(int64_t nowMono) {
    for (;;) {
        int fd = accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) return;
        auto client = std::make_unique<Client>();
        client->fd.reset(fd);
        client->id = nextId_++;
        client->connectedAt = nowMono;
        clients_.push_back(std::move(client));
    }
}

void SubscriberHub::readFrom(Client &client) {
    char chunk[kReadChunk];
    ssize_t n = recv(client.fd.get(), chunk, sizeof chunk, 0);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (n <= 0) {
        // A subscriber that said its line and went is just gone; one that never
        // asked is worth a line.
        if (!client.live) drop(client, "closed the connection without a request");
        client.dropped = true;
        return;
    }
    if (client.live) return;  // after the request the agent only writes
    client.input.append(chunk, static_cast<size_t>(n));
    size_t newline = client.input.find('\n');
    if (newline == std::string::npos) {
        if (client.input.size() > kMaxRequestLine)
            drop(client, "sent a line longer than " + std::to_string(kMaxRequestLine) + " bytes");
        return;
    }
    takeRequest(client, std::string_view(client.input).substr(0, newline));
}

void SubscriberHub::takeRequest(Client &client, std::string_view line) {
    std::optional<SubscriberRequest> request = parseRequest(line);
    if (!request) return drop(client, "sent a bad request (expected {} or {\"since\": N})");
    client.live = true;
    client.input.clear();
    client.input.shrink_to_fit();
    queue(client, greeter_(*request));
    flush(client);
}

void SubscriberHub::queue(Client &client, std::string_view text) {
    if (client.dropped) return;
    if (client.sent > 0 && client.sent == client.output.size()) client.output.clear(), client.sent = 0;
    client.output.append(text);
    if (client.output.size() - client.sent > kMaxQueuedBytes)
        drop(client, "does not read: more than 1 MiB queued");
}

void SubscriberHub::broadcast(const std::string &line) {
    for (auto &client : clients_) {
        if (!client->live || client->dropped) continue;
        queue(*client, line);
        queue(*client, "\n");
        flush(*client);
    }
}

void SubscriberHub::flush(Client &client) {
    while (!client.dropped && client.sent < client.output.size()) {
        ssize_t n = send(client.fd.get(), client.output.data() + client.sent,
                         client.output.size() - client.sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && errno == EAGAIN) break;
        if (n <= 0) return void(client.dropped = true);  // it went away
        client.sent += static_cast<size_t>(n);
    }
    // Written bytes are let go of once they are a large part of the queue.
    if (client.sent > kMaxQueuedBytes / 4) client.output.erase(0, client.sent), client.sent = 0;
}

void SubscriberHub::drop(Client &client, const std::string &why) {
    if (client.dropped) return;
    agentLog("subscriber " + std::to_string(client.id) + " " + why + "; dropped");
    client.dropped = true;
}
