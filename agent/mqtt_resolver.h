// A broker's name resolved without holding the agent's loop: getaddrinfo_a, whose
// lookup runs in a short-lived thread of the C library, looked at once a second.
// A name that the resolver takes seconds to answer (DNS down, an mDNS name that
// nobody answers) then delays only the connection, never subscribers or the daemon.
// Where the C library has no getaddrinfo_a (musl), the lookup blocks instead.
#pragma once

#include <string>

class MqttResolver {
   public:
    enum class Status { Pending, Done, Failed };

    MqttResolver() = default;
    ~MqttResolver();
    MqttResolver(const MqttResolver &) = delete;
    MqttResolver &operator=(const MqttResolver &) = delete;

    // Starts looking HOST up; false and the reason in WHY when it cannot start.
    bool start(const std::string &host, std::string &why);
    // Pending while the lookup runs; then Done with the first address as text in
    // RESULT, or Failed with the reason there.
    Status check(std::string &result);

   private:
    struct Request;
    Request *request_ = nullptr;
};

// True for an IPv4 or IPv6 address written out, which needs no lookup.
bool isNumericHost(const std::string &host);
