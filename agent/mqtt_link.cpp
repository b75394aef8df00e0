#include "mqtt_link.h"

#include <cerrno>
#include <cstring>

#include "log.h"
#include "mqtt_library.h"

namespace {

constexpr std::string_view kLogKey = "mqtt";

std::string describe(const MosquittoApi &api, int rc) {
    std::string text = rc == MOSQ_ERR_ERRNO ? std::strerror(errno) : api.mosquitto_strerror(rc);
    if (text.ends_with('.')) text.pop_back();
    return text;
}

std::string brokerText(const MqttBroker &broker) {
    bool v6 = broker.host.find(':') != std::string::npos;
    return (v6 ? "[" + broker.host + "]" : broker.host) + ":" + std::to_string(broker.port);
}

// Never 0, which marks "nothing sent".
size_t payloadHash(std::string_view payload) {
    return std::hash<std::string_view>{}(payload) | 1;
}

}  // namespace

MqttLink::MqttLink(const MosquittoApi &api, MqttSettings settings, NextDevice next)
    : api_(api), settings_(std::move(settings)), next_(std::move(next)) {}

MqttLink::~MqttLink() {
    if (state_ == State::Connected) {
        send(kMqttStatusTopic, kMqttOffline);
        if (client_) api_.mosquitto_disconnect(client_);
    }
    if (client_) api_.mosquitto_destroy(client_);
}

pollfd MqttLink::pollEntry() const {
    if (!client_) return {-1, 0, 0};
    short events = POLLIN;
    if (api_.mosquitto_want_write(client_)) events |= POLLOUT;
    return {api_.mosquitto_socket(client_), events, 0};
}

void MqttLink::serve(short revents, int64_t nowMono) {
    nowMono_ = nowMono;
    if (client_ && (revents & (POLLIN | POLLERR | POLLHUP)))
        afterIo(api_.mosquitto_loop_read(client_, 1), "read");
    if (client_ && (revents & POLLOUT)) afterIo(api_.mosquitto_loop_write(client_, 1), "write");
    settle();
}

void MqttLink::tick(int64_t nowMono) {
    nowMono_ = nowMono;
    if (state_ == State::Idle && nowMono >= nextAttempt_) attempt();
    if (state_ == State::Resolving) lookedUp();
    if (state_ == State::Connecting && nowMono >= connectDeadline_)
        drop("no answer within " + std::to_string(kMqttConnectTimeoutSeconds) + " s");
    // Keepalive: pings, and a broker that stopped answering them is dropped.
    if (state_ == State::Connected) afterIo(api_.mosquitto_loop_misc(client_), "keepalive");
    settle();
}

// Acts on what the callbacks noted, and goes on with a resync.
void MqttLink::settle() {
    if (connackCode_ >= 0) {
        int code = connackCode_;
        connackCode_ = -1;
        if (code == 0)
            connected();
        else
            drop(std::string("the broker refused the connection: ") +
                 api_.mosquitto_connack_string(code));
    }
    if (lostConnection_) drop("connection lost");
    if (sayOnlineAgain_ && state_ == State::Connected) {
        sayOnlineAgain_ = false;
        send(kMqttStatusTopic, kMqttOnline);
    }
    resync();
}

void MqttLink::publish(const MqttDeviceMessages &messages) {
    if (state_ != State::Connected) return;  // the next connect's resync sends it
    if (sent_.size() >= kMqttMaxRemembered && !sent_.contains(messages.mac)) sent_.clear();
    Sent &sent = sent_[messages.mac];
    send(messages.config, sent.config);
    send(messages.attributes, sent.attributes);
    send(messages.state, sent.state);
}

// A name is looked up again at every attempt, in the background.
void MqttLink::attempt() {
    const std::string &host = settings_.broker.host;
    if (isNumericHost(host)) return connect(host);
    std::string why;
    if (!resolver_.start(host, why)) return drop("cannot resolve the name: " + why);
    state_ = State::Resolving;
}

void MqttLink::lookedUp() {
    std::string result;
    switch (resolver_.check(result)) {
        case MqttResolver::Status::Pending:
            return;
        case MqttResolver::Status::Done:
            return connect(result);
        case MqttResolver::Status::Failed:
            return drop("cannot resolve the name: " + result);
    }
}

// A fresh client for every attempt: nothing of a failed connection (its queue,
// its half-open socket) is carried over.
void MqttLink::connect(const std::string &address) {
    client_ = api_.mosquitto_new(settings_.clientId.c_str(), true, this);
    if (!client_) return drop("cannot create a client (out of memory)");
    api_.mosquitto_connect_callback_set(client_, onConnect);
    api_.mosquitto_disconnect_callback_set(client_, onDisconnect);
    api_.mosquitto_message_callback_set(client_, onMessage);
    api_.mosquitto_will_set(client_, std::string(kMqttStatusTopic).c_str(),
                            static_cast<int>(kMqttOffline.size()), kMqttOffline.data(), 1, true);
    if (!settings_.user.empty())
        api_.mosquitto_username_pw_set(
            client_, settings_.user.c_str(),
            settings_.password.empty() ? nullptr : settings_.password.c_str());
    int rc = api_.mosquitto_connect_async(client_, address.c_str(), settings_.broker.port,
                                          kMqttKeepaliveSeconds);
    if (rc != MOSQ_ERR_SUCCESS) return drop(describe(api_, rc));
    state_ = State::Connecting;
    connectDeadline_ = nowMono_ + kMqttConnectTimeoutSeconds;
}

// Reported once until the broker answers again; the next attempt waits twice as
// long as this one, up to a minute.
void MqttLink::drop(const std::string &why) {
    // Only a connection that lasted resets the back-off: a broker that takes the
    // connection and drops it at once is not asked every second.
    if (state_ == State::Connected && nowMono_ - connectedAt_ >= kMqttStableSeconds)
        retry_ = kMqttFirstRetrySeconds;
    if (client_) api_.mosquitto_destroy(client_);
    client_ = nullptr;
    state_ = State::Idle;
    connackCode_ = -1, lostConnection_ = sayOnlineAgain_ = false;
    resyncAfter_.reset(), sent_.clear(), queuedBytes_ = 0;
    agentLogOnce(kLogKey, "MQTT broker " + brokerText(settings_.broker) + ": " + why +
                              "; retrying with back-off up to " +
                              std::to_string(kMqttMaxRetrySeconds) + " s");
    nextAttempt_ = nowMono_ + retry_;
    retry_ = std::min(retry_ * 2, kMqttMaxRetrySeconds);
}

void MqttLink::connected() {
    state_ = State::Connected;
    connectedAt_ = nowMono_;
    agentLogClear(kLogKey);
    agentLog("MQTT broker " + brokerText(settings_.broker) +
             ": connected; publishing every device for Home Assistant");
    send(kMqttStatusTopic, kMqttOnline);
    // An old connection's will may say "offline" after this; it is answered.
    if (client_)
        api_.mosquitto_subscribe(client_, nullptr, std::string(kMqttStatusTopic).c_str(), 0);
    resyncAfter_ = std::string();
}

// Walks the devices in MAC order, a window at a time, so a large table never
// piles up in the client's queue.
void MqttLink::resync() {
    while (state_ == State::Connected && resyncAfter_ && queuedBytes_ < kMqttResyncWindow) {
        std::optional<MqttDeviceMessages> messages = next_(*resyncAfter_);
        if (!messages) {
            resyncAfter_.reset();
            break;
        }
        resyncAfter_ = messages->mac;
        publish(*messages);
    }
}

void MqttLink::send(const MqttMessage &message, size_t &sentHash) {
    size_t hash = payloadHash(message.payload);
    if (hash == sentHash || state_ != State::Connected) return;
    send(message.topic, message.payload);
    if (state_ == State::Connected) sentHash = hash;
}

// Retained, QoS 0: TCP delivers while the connection lasts, and the resync after
// the next connect covers whatever a lost connection took with it.
void MqttLink::send(std::string_view topic, std::string_view payload) {
    if (!client_) return;
    int rc = api_.mosquitto_publish(client_, nullptr, std::string(topic).c_str(),
                                    static_cast<int>(payload.size()), payload.data(), 0, true);
    if (rc != MOSQ_ERR_SUCCESS) return drop("cannot publish: " + describe(api_, rc));
    queuedBytes_ += topic.size() + payload.size();
    if (!api_.mosquitto_want_write(client_))
        queuedBytes_ = 0;
    else if (queuedBytes_ > kMqttMaxQueuedBytes)
        drop("more than " + std::to_string(kMqttMaxQueuedBytes >> 10) +
             " KiB wait for the broker to read them");
}

void MqttLink::afterIo(int rc, const char *what) {
    if (!client_) return;
    if (rc != MOSQ_ERR_SUCCESS) return drop(std::string(what) + ": " + describe(api_, rc));
    if (!api_.mosquitto_want_write(client_)) queuedBytes_ = 0;
}

// The callbacks run inside libmosquitto's read and write calls: they only note
// what happened, and serve() acts on it.
void MqttLink::onConnect(mosquitto *, void *self, int rc) {
    static_cast<MqttLink *>(self)->connackCode_ = rc;
}

void MqttLink::onDisconnect(mosquitto *, void *self, int) {
    static_cast<MqttLink *>(self)->lostConnection_ = true;
}

void MqttLink::onMessage(mosquitto *, void *self, const mosquitto_message *message) {
    std::string_view payload(static_cast<const char *>(message->payload),
                             message->payload ? static_cast<size_t>(message->payloadlen) : 0);
    if (payload == kMqttOffline) static_cast<MqttLink *>(self)->sayOnlineAgain_ = true;
}
