#include "web_server.h"

#include <microhttpd.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "args.h"
#include "core/unique_fd.h"
#include "format.h"
#include "log.h"
#include "web_assets.h"
#include "web_text.h"

namespace {

constexpr int kBacklog = 16;
constexpr unsigned kPerAddressConnections = 16;
constexpr size_t kStreamBlock = 4096;
constexpr std::string_view kHistoryPrefix = "/api/history/";
constexpr std::string_view kJson = "application/json";
constexpr std::string_view kText = "text/plain; charset=utf-8";
constexpr std::string_view kMetricsType = "text/plain; version=0.0.4; charset=utf-8";
// The page loads only its own script and style and talks only to this server:
// even markup that slipped into it could run nothing.
constexpr const char *kPagePolicy =
    "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; img-src 'self';"
    " base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

UniqueFd listenOn(std::string_view where, std::string &why) {
    std::optional<ListenAddress> address = parseListenAddress(where);
    if (!address) {
        why = "expected IPV4:PORT or [IPV6]:PORT (for example 127.0.0.1:8089) or off";
        return {};
    }
    int family = address->addr.ss_family;
    UniqueFd fd(socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    int on = 1;
    if (fd.valid()) setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (fd.valid() && family == AF_INET6) setsockopt(fd.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
    if (!fd.valid() || bind(fd.get(), reinterpret_cast<sockaddr *>(&address->addr), address->size) < 0 ||
        ::listen(fd.get(), kBacklog) < 0) {
        why = std::strerror(errno);
        return {};
    }
    return fd;
}

MHD_Result send(MHD_Connection *connection, unsigned status, std::string_view type,
                std::string_view body, bool persistent = false) {
    MHD_Response *response = MHD_create_response_from_buffer(
        body.size(), const_cast<char *>(body.data()),
        persistent ? MHD_RESPMEM_PERSISTENT : MHD_RESPMEM_MUST_COPY);
    if (!response) return MHD_NO;
    MHD_add_response_header(response, "Content-Type", std::string(type).c_str());
    MHD_add_response_header(response, "X-Content-Type-Options", "nosniff");
    MHD_add_response_header(response, "Cache-Control", persistent ? "no-cache" : "no-store");
    if (type.starts_with("text/html")) MHD_add_response_header(response, "Content-Security-Policy", kPagePolicy);
    if (status == MHD_HTTP_METHOD_NOT_ALLOWED) MHD_add_response_header(response, "Allow", "GET, HEAD");
    MHD_Result result = MHD_queue_response(connection, status, response);
    MHD_destroy_response(response);
    return result;
}

// A short plain answer to a request that gets no page; each kind is logged once.
MHD_Result refuse(MHD_Connection *connection, unsigned status, const std::string &what) {
    agentLogOnce("http-" + std::to_string(status),
                 "web: " + escapeText(what) + " (" + std::to_string(status) + "; further ones not logged)");
    return send(connection, status, kText, what + "\n");
}

}  // namespace

struct WebServer::Stream {
    WebServer *server = nullptr;
    MHD_Connection *connection = nullptr;
    uint64_t id = 0;
    std::string queue;
    size_t sent = 0;  // bytes of queue already handed to libmicrohttpd
    bool suspended = false, dropped = false;
};

struct WebCallbacks {
    static MHD_Result onRequest(void *cls, MHD_Connection *connection, const char *url,
                                const char *method, const char *, const char *, size_t *,
                                void **) {
        return static_cast<WebServer *>(cls)->answer(connection, url, method) ? MHD_YES : MHD_NO;
    }

    // Hands libmicrohttpd what the stream has queued; with nothing queued the
    // connection sleeps until publish() wakes it.
    static ssize_t readStream(void *cls, uint64_t, char *buffer, size_t max) {
        auto &stream = *static_cast<WebServer::Stream *>(cls);
        if (stream.dropped) return MHD_CONTENT_READER_END_WITH_ERROR;
        if (stream.sent == stream.queue.size()) {
            stream.queue.clear(), stream.sent = 0;
            stream.suspended = true;
            MHD_suspend_connection(stream.connection);
            return 0;
        }
        size_t n = std::min(max, stream.queue.size() - stream.sent);
        std::memcpy(buffer, stream.queue.data() + stream.sent, n);
        stream.sent += n;
        // Sent bytes are let go of once they are a large part of the queue.
        if (stream.sent > kMaxStreamQueue / 4) stream.queue.erase(0, stream.sent), stream.sent = 0;
        return static_cast<ssize_t>(n);
    }

    static void freeStream(void *cls) {
        auto *stream = static_cast<WebServer::Stream *>(cls);
        stream->server->forget(stream);
        delete stream;
    }
};

std::unique_ptr<WebServer> WebServer::start(std::string_view listen, WebContent content) {
    std::string why;
    UniqueFd fd = listenOn(listen, why);
    if (!fd.valid()) {
        agentLog("http_listen " + std::string(listen) + ": " + why + "; no web page or metrics");
        return nullptr;
    }
    std::unique_ptr<WebServer> server(new WebServer(std::move(content)));
    // No thread of its own: the agent's loop polls the epoll descriptor and runs it.
    server->daemon_ = MHD_start_daemon(
        MHD_USE_EPOLL | MHD_ALLOW_SUSPEND_RESUME, 0, nullptr, nullptr, &WebCallbacks::onRequest,
        server.get(), MHD_OPTION_LISTEN_SOCKET, fd.get(), MHD_OPTION_CONNECTION_LIMIT,
        kMaxHttpConnections, MHD_OPTION_PER_IP_CONNECTION_LIMIT, kPerAddressConnections,
        MHD_OPTION_CONNECTION_TIMEOUT, kHttpIdleSeconds, MHD_OPTION_END);
    if (!server->daemon_) {
        agentLog("http_listen " + std::string(listen) + ": the HTTP server did not start; no web page or metrics");
        return nullptr;
    }
    fd.release();  // libmicrohttpd closes it when it stops
    agentLog("web page and metrics at http://" + std::string(listen) + "/");
    return server;
}

WebServer::~WebServer() {
    if (!daemon_) return;
    for (Stream *stream : streams_) {
        stream->dropped = true;
        if (stream->suspended) MHD_resume_connection(stream->connection), stream->suspended = false;
    }
    MHD_stop_daemon(daemon_);
}

void WebServer::addPollFds(std::vector<pollfd> &fds) const {
    const MHD_DaemonInfo *info = MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_EPOLL_FD);
    fds.push_back({info ? info->epoll_fd : -1, POLLIN, 0});
}

int WebServer::timeoutMs() const {
    MHD_UNSIGNED_LONG_LONG ms = 0;
    if (MHD_get_timeout(daemon_, &ms) != MHD_YES) return -1;
    return static_cast<int>(std::min<MHD_UNSIGNED_LONG_LONG>(ms, 1000));
}

void WebServer::run() { MHD_run(daemon_); }

bool WebServer::answer(MHD_Connection *connection, std::string_view url, std::string_view method) {
    if (method != "GET" && method != "HEAD")
        return refuse(connection, MHD_HTTP_METHOD_NOT_ALLOWED, std::string(method) + " is not served; only GET") == MHD_YES;
    if (url == "/api/events") return openStream(connection);
    MHD_Result result;
    if (const WebAsset *asset = findWebAsset(url)) {
        result = send(connection, MHD_HTTP_OK, asset->type, asset->body, true);
    } else if (url == "/api/hosts") {
        result = send(connection, MHD_HTTP_OK, kJson, content_.hosts());
    } else if (url == "/metrics") {
        result = send(connection, MHD_HTTP_OK, kMetricsType, content_.metrics());
    } else if (url.starts_with(kHistoryPrefix)) {
        std::string_view text = url.substr(kHistoryPrefix.size());
        std::optional<MacAddress> mac = parseMac(text);
        std::optional<std::string> detail = mac ? content_.history(formatMac(mac->data())) : std::nullopt;
        if (!mac) result = refuse(connection, MHD_HTTP_BAD_REQUEST, "not a MAC address: " + std::string(text));
        else if (!detail) result = send(connection, MHD_HTTP_NOT_FOUND, kText, "no such device\n");
        else result = send(connection, MHD_HTTP_OK, kJson, *detail);
    } else {
        result = refuse(connection, MHD_HTTP_NOT_FOUND, "no page at " + std::string(url));
    }
    return result == MHD_YES;
}

bool WebServer::openStream(MHD_Connection *connection) {
    if (streams_.size() >= kMaxEventStreams)
        return refuse(connection, MHD_HTTP_SERVICE_UNAVAILABLE,
                      "too many event streams (at most " + std::to_string(kMaxEventStreams) + ")") == MHD_YES;
    const char *header = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, "Last-Event-ID");
    auto *stream = new Stream{this, connection, nextStreamId_++, {}, 0, false, false};
    MHD_Response *response = MHD_create_response_from_callback(
        MHD_SIZE_UNKNOWN, kStreamBlock, &WebCallbacks::readStream, stream, &WebCallbacks::freeStream);
    if (!response) {
        delete stream;
        return false;
    }
    streams_.push_back(stream);
    queue(*stream, "retry: 2000\n");
    queue(*stream, content_.greet(header ? parseLastEventId(header) : std::nullopt));
    MHD_add_response_header(response, "Content-Type", "text/event-stream");
    MHD_add_response_header(response, "Cache-Control", "no-store");
    MHD_add_response_header(response, "X-Content-Type-Options", "nosniff");
    MHD_Result result = MHD_queue_response(connection, MHD_HTTP_OK, response);
    MHD_destroy_response(response);  // the free callback runs when the connection lets go
    return result == MHD_YES;
}

void WebServer::queue(Stream &stream, std::string_view text) {
    if (stream.dropped) return;
    stream.queue.append(text);
    if (stream.queue.size() - stream.sent > kMaxStreamQueue) {
        agentLog("web: event stream " + std::to_string(stream.id) + " does not read: more than 1 MiB queued; dropped");
        stream.dropped = true;
        std::string().swap(stream.queue), stream.sent = 0;
    }
    if (stream.suspended) {
        stream.suspended = false;
        MHD_resume_connection(stream.connection);
    }
}

void WebServer::publish(uint64_t seq, const std::string &line) {
    std::string message = sseMessage(seq, line);
    for (Stream *stream : streams_) queue(*stream, message);
}

void WebServer::tick(int64_t nowMono) {
    if (nowMono < nextKeepAlive_) return;
    nextKeepAlive_ = nowMono + kStreamKeepAliveSeconds;
    for (Stream *stream : streams_) queue(*stream, ":\n\n");
}

void WebServer::forget(Stream *stream) { std::erase(streams_, stream); }
