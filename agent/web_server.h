// The agent's web server: the connected-devices page, its JSON, the event stream
// and /metrics, on http_listen. libmicrohttpd runs inside the agent's own poll
// loop (its epoll descriptor is one more entry there, MHD_run serves it), so the
// agent stays one thread. Chosen because it is a small, embeddable C library that
// Debian and OpenWrt both package, needs no threads of its own, and already
// bounds what a client can make it hold (connections, per-connection memory,
// idle time). Event streams are suspended while they have nothing to send and
// resumed when an event comes; one that does not read is dropped.
#pragma once

#include <poll.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct MHD_Daemon;
struct MHD_Connection;

inline constexpr unsigned kMaxHttpConnections = 32;
inline constexpr size_t kMaxEventStreams = 8;
inline constexpr size_t kMaxStreamQueue = size_t{1} << 20;
inline constexpr unsigned kHttpIdleSeconds = 60;
inline constexpr int64_t kStreamKeepAliveSeconds = 5;

// What the agent answers with; called from within WebServer::run.
struct WebContent {
    std::function<std::string()> hosts;
    // The detail of one device (MAC as "aa:bb:..."); nullopt: never seen.
    std::function<std::optional<std::string>(const std::string &mac)> history;
    std::function<std::string()> metrics;
    // The first server-sent events of a new stream, for its Last-Event-ID.
    std::function<std::string(std::optional<uint64_t> lastEventId)> greet;
};

class WebServer {
public:
    // Listens on LISTEN ("IPV4:PORT", "[IPV6]:PORT"); nullptr after one log line.
    static std::unique_ptr<WebServer> start(std::string_view listen, WebContent content);
    ~WebServer();
    WebServer(const WebServer &) = delete;
    WebServer &operator=(const WebServer &) = delete;

    void addPollFds(std::vector<pollfd> &fds) const;
    // Milliseconds until run() is due without any descriptor ready; -1: none.
    int timeoutMs() const;
    void run();
    // Sends LINE as event SEQ to every stream.
    void publish(uint64_t seq, const std::string &line);
    // Once a second: a comment to every stream now and then, so that proxies and
    // the idle timeout keep live ones and a vanished client shows.
    void tick(int64_t nowMono);
    size_t streams() const { return streams_.size(); }

    struct Stream;

private:
    friend struct WebCallbacks;  // libmicrohttpd's C callbacks, in web_server.cpp
    explicit WebServer(WebContent content) : content_(std::move(content)) {}
    bool answer(MHD_Connection *connection, std::string_view url, std::string_view method);
    bool openStream(MHD_Connection *connection);
    void queue(Stream &stream, std::string_view text);
    void forget(Stream *stream);

    WebContent content_;
    MHD_Daemon *daemon_ = nullptr;
    std::vector<Stream *> streams_;  // each owned by its response; freed by MHD
    uint64_t nextStreamId_ = 1;
    int64_t nextKeepAlive_ = 0;
};
