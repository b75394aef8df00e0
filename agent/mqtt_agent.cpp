// The agent's side of Home Assistant publishing: settings from agent.conf, and its
// devices as MQTT messages. Only devices the daemon has reported during this run
// are published (online ones at most the host table's size); presence follows the
// daemon's arrival and departure reports, so nothing needs a consider_home delay.
#include <unistd.h>

#include "agent.h"
#include "args.h"
#include "format.h"
#include "log.h"
#include "mqtt_library.h"

namespace {

// Brokers may refuse client ids longer than 23 bytes.
constexpr size_t kMaxClientId = 23;

std::string clientId() {
    char host[256] = {};
    gethostname(host, sizeof host - 1);
    return ("hostrix-" + std::string(host)).substr(0, kMaxClientId);
}

}  // namespace

void Agent::startMqtt() {
    if (config_.mqttUrl.empty()) return;
    std::string why;
    std::optional<MqttBroker> broker = parseMqttUrl(config_.mqttUrl, why);
    if (!broker) {
        agentLog("mqtt_url '" + escapeText(config_.mqttUrl) + "': " + why +
                 "; nothing is published to Home Assistant");
        return;
    }
    const MosquittoApi *api = loadMosquitto(why);
    if (!api) {
        agentLog("mqtt_url is set, but libmosquitto cannot be loaded (" + why +
                 "); nothing is published to Home Assistant");
        return;
    }
    MqttSettings settings{*broker, config_.mqttUser, config_.mqttPassword, clientId()};
    mqtt_ = std::make_unique<MqttLink>(*api, std::move(settings), [this](const std::string &after) {
        return mqttDeviceAfter(after);
    });
    mqtt_->tick(nowMono_);  // the first attempt starts now
}

MqttDeviceMessages Agent::mqttMessages(const Device &device) const {
    return deviceMessages(device, ifnames_.kernelOf(fieldText(device.record.ifName)),
                          linkedMacs(device), now_);
}

std::optional<MqttDeviceMessages> Agent::mqttDeviceAfter(const std::string &after) {
    auto at = devices_.begin();
    if (!after.empty()) {
        std::optional<MacAddress> mac = parseMac(after);
        if (!mac) return std::nullopt;
        at = devices_.upper_bound(*mac);
    }
    for (; at != devices_.end(); ++at)
        if (at->second.haveRecord) return mqttMessages(at->second);
    return std::nullopt;
}
