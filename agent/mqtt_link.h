// The agent's MQTT connection to Home Assistant's broker, driven from the agent's
// own poll loop (libmosquitto without its thread): a broker that is down, slow or
// gone never holds the loop. Connects without waiting, retries with back-off (1 s
// doubling to 60 s), and after every connect republishes each device the agent
// knows, retained, so a broker that lost its store gets everything back. Nothing
// is queued while the broker is away; while it is there, a broker that stops
// reading is cut off once 1 MiB waits for it, and resynced when it returns.
#pragma once

#include <poll.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "mqtt_messages.h"
#include "mqtt_resolver.h"

struct mosquitto;
struct mosquitto_message;
struct MosquittoApi;

inline constexpr int64_t kMqttFirstRetrySeconds = 1;
inline constexpr int64_t kMqttMaxRetrySeconds = 60;
inline constexpr int64_t kMqttConnectTimeoutSeconds = 10;
// A connection that lasted this long resets the back-off.
inline constexpr int64_t kMqttStableSeconds = 10;
inline constexpr int kMqttKeepaliveSeconds = 60;
inline constexpr size_t kMqttMaxQueuedBytes = size_t{1} << 20;
// A resync publishes more devices only while less than this waits to be written.
inline constexpr size_t kMqttResyncWindow = 64 * 1024;
inline constexpr size_t kMqttMaxRemembered = 4096;

struct MqttSettings {
    MqttBroker broker;
    std::string user, password;  // empty user: none
    std::string clientId;
};

class MqttLink {
   public:
    // The device after the one whose MAC is AFTER (empty: the first), in MAC order;
    // nullopt past the last. How a resync walks the agent's devices.
    using NextDevice = std::function<std::optional<MqttDeviceMessages>(const std::string &after)>;

    MqttLink(const MosquittoApi &api, MqttSettings settings, NextDevice next);
    // Says "offline" and disconnects when it can do so without waiting.
    ~MqttLink();
    MqttLink(const MqttLink &) = delete;
    MqttLink &operator=(const MqttLink &) = delete;

    // The broker's socket (fd -1 while there is none), for the loop's poll set.
    pollfd pollEntry() const;
    // Reads and writes what poll reported for pollEntry().
    void serve(short revents, int64_t nowMono);
    // Once a second: connect attempts, the connect timeout, keepalive.
    void tick(int64_t nowMono);
    // A device changed: its messages go out now if connected (only the ones that
    // differ from what the broker holds), else with the next resync.
    void publish(const MqttDeviceMessages &messages);

   private:
    enum class State { Idle, Resolving, Connecting, Connected };

    void attempt();
    void lookedUp();
    void connect(const std::string &address);
    void settle();
    void drop(const std::string &why);
    void connected();
    void resync();
    void send(const MqttMessage &message, size_t &sentHash);
    void send(std::string_view topic, std::string_view payload);
    void afterIo(int rc, const char *what);

    static void onConnect(mosquitto *, void *self, int rc);
    static void onDisconnect(mosquitto *, void *self, int rc);
    static void onMessage(mosquitto *, void *self, const struct mosquitto_message *message);

    struct Sent {
        size_t config = 0, state = 0, attributes = 0;  // payload hashes; 0: nothing yet
    };

    const MosquittoApi &api_;
    MqttSettings settings_;
    NextDevice next_;
    mosquitto *client_ = nullptr;
    MqttResolver resolver_;
    State state_ = State::Idle;
    int64_t nowMono_ = 0, nextAttempt_ = 0, connectDeadline_ = 0, connectedAt_ = 0;
    int64_t retry_ = kMqttFirstRetrySeconds;
    int connackCode_ = -1;                        // set by onConnect, acted upon after the read
    bool lostConnection_ = false;                 // set by onDisconnect
    bool sayOnlineAgain_ = false;                 // someone (an old connection's will) said offline
    std::optional<std::string> resyncAfter_;      // the resync's position; nullopt: none running
    size_t queuedBytes_ = 0;                      // published since the socket last drained
    std::unordered_map<std::string, Sent> sent_;  // by MAC, this connection
};
