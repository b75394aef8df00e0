#include "mqtt_resolver.h"

#include <arpa/inet.h>
#include <netdb.h>

#if defined(__GLIBC__)
struct MqttResolver::Request {
    std::string host;
    addrinfo hints{};
    gaicb block{};
    gaicb *list[1] = {&block};
};

MqttResolver::~MqttResolver() {
    if (!request_) return;
    int rc = gai_cancel(&request_->block);
    // A lookup that cannot be cancelled still writes into its request: left to it.
    if (rc == EAI_NOTCANCELED) return;
    if (rc == EAI_ALLDONE && request_->block.ar_result) freeaddrinfo(request_->block.ar_result);
    delete request_;
}

bool MqttResolver::start(const std::string &host, std::string &why) {
    if (request_) return why = "a lookup is still running", false;
    request_ = new Request;
    request_->host = host;
    request_->hints.ai_family = AF_UNSPEC;
    request_->hints.ai_socktype = SOCK_STREAM;
    request_->block.ar_name = request_->host.c_str();
    request_->block.ar_request = &request_->hints;
    int rc = getaddrinfo_a(GAI_NOWAIT, request_->list, 1, nullptr);
    if (rc == 0) return true;
    why = gai_strerror(rc);
    delete request_;
    request_ = nullptr;
    return false;
}

MqttResolver::Status MqttResolver::check(std::string &result) {
    if (!request_) return result = "no lookup", Status::Failed;
    int rc = gai_error(&request_->block);
    if (rc == EAI_INPROGRESS) return Status::Pending;
    addrinfo *found = request_->block.ar_result;
    char text[NI_MAXHOST] = {};
    if (rc == 0 && found)
        rc = getnameinfo(found->ai_addr, found->ai_addrlen, text, sizeof text, nullptr, 0,
                         NI_NUMERICHOST);
    result = rc == 0 && found ? text : gai_strerror(rc);
    if (found) freeaddrinfo(found);
    delete request_;
    request_ = nullptr;
    return rc == 0 ? Status::Done : Status::Failed;
}

#else
// C libraries without getaddrinfo_a (musl, so OpenWrt): the lookup runs at start()
// and holds the loop while it lasts; a broker given by address needs none.
struct MqttResolver::Request {
    int rc = 0;
    std::string result;
};

MqttResolver::~MqttResolver() { delete request_; }

bool MqttResolver::start(const std::string &host, std::string &why) {
    if (request_) return why = "a lookup is still running", false;
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    request_ = new Request;
    request_->rc = getaddrinfo(host.c_str(), nullptr, &hints, &found);
    char text[NI_MAXHOST] = {};
    if (request_->rc == 0)
        request_->rc = getnameinfo(found->ai_addr, found->ai_addrlen, text, sizeof text, nullptr,
                                   0, NI_NUMERICHOST);
    request_->result = request_->rc == 0 ? text : gai_strerror(request_->rc);
    if (found) freeaddrinfo(found);
    return true;
}

MqttResolver::Status MqttResolver::check(std::string &result) {
    if (!request_) return result = "no lookup", Status::Failed;
    const bool done = request_->rc == 0;
    result = std::move(request_->result);
    delete request_;
    request_ = nullptr;
    return done ? Status::Done : Status::Failed;
}
#endif

bool isNumericHost(const std::string &host) {
    unsigned char address[16];
    return inet_pton(AF_INET, host.c_str(), address) == 1 ||
           inet_pton(AF_INET6, host.c_str(), address) == 1;
}
