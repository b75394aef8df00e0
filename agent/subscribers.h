// The subscriber socket: any number of local clients, each of which sends one
// request line and then reads newline-delimited JSON. Every client has its own
// output queue; one that stops reading is cut off once the queue passes 1 MiB,
// and never slows the others. Clients that send garbage, nothing (for
// kRequestWaitSeconds), or an overlong line are dropped with one log line.
#pragma once

#include <poll.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/unique_fd.h"
#include "request.h"

inline constexpr size_t kMaxQueuedBytes = size_t{1} << 20;
inline constexpr int64_t kRequestWaitSeconds = 10;

class SubscriberHub {
public:
    // What a new subscriber is sent first, for its request.
    using Greeter = std::function<std::string(const SubscriberRequest &)>;

    SubscriberHub(UniqueFd listener, Greeter greeter);

    // Adds the listener's and the clients' descriptors to FDS.
    void addPollFds(std::vector<pollfd> &fds) const;
    // Serves what poll reported in FDS (the entries addPollFds added, from FIRST on).
    void serve(const std::vector<pollfd> &fds, size_t first, int64_t nowMono);
    // Queues LINE (with its newline) for every client that has made its request.
    void broadcast(const std::string &line);
    size_t clients() const { return clients_.size(); }

private:
    struct Client {
        UniqueFd fd;
        uint64_t id = 0;
        int64_t connectedAt = 0;
        std::string input;
        std::string output;
        size_t sent = 0;  // bytes of output already written
        bool live = false;
        bool dropped = false;
    };

    void accept(int64_t nowMono);
    void readFrom(Client &client);
    void takeRequest(Client &client, std::string_view line);
    void queue(Client &client, std::string_view text);
    void flush(Client &client);
    void drop(Client &client, const std::string &why);

    UniqueFd listener_;
    Greeter greeter_;
    std::vector<std::unique_ptr<Client>> clients_;
    uint64_t nextId_ = 1;
};

// A listening stream socket at PATH, mode 0600, or 0660 for GROUP (empty: none).
// Returns an invalid descriptor and the reason in WHY on failure.
UniqueFd listenUnix(const std::string &path, const std::string &group, std::string &why);
// The same for a datagram socket.
UniqueFd bindUnixDatagram(const std::string &path, const std::string &group, std::string &why);
