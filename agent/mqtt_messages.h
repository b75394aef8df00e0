// What hostrix-agent tells Home Assistant over MQTT, as pure text: the broker's
// address from mqtt_url, and the three retained messages that describe one device
// (a device_tracker discovery config, its home / not_home state, its attributes).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "device.h"

inline constexpr int kMqttDefaultPort = 1883;
inline constexpr std::string_view kMqttStatusTopic = "hostrix/status";
inline constexpr std::string_view kMqttOnline = "online";
inline constexpr std::string_view kMqttOffline = "offline";

struct MqttBroker {
    std::string host;  // a name or an address (IPv6 without its brackets)
    int port = kMqttDefaultPort;
    bool operator==(const MqttBroker &) const = default;
};

// mqtt://HOST, mqtt://HOST:PORT, mqtt://[IPV6]:PORT, or the same without "mqtt://".
// nullopt and the reason in WHY for anything else (mqtts://, user@, a path).
std::optional<MqttBroker> parseMqttUrl(std::string_view url, std::string &why);

struct MqttMessage {
    std::string topic;
    std::string payload;
};

// All three are published retained, so Home Assistant finds them whenever it
// (re)subscribes.
struct MqttDeviceMessages {
    std::string mac;  // aa:bb:cc:dd:ee:ff
    MqttMessage config, state, attributes;
};

MqttDeviceMessages deviceMessages(const Device &device, std::string_view kernelIfName,
                                  const std::vector<std::string> &linkedMacs, int64_t now);
