#include "mqtt_messages.h"

#include <algorithm>
#include <charconv>

#include "format.h"

namespace {

constexpr std::string_view kScheme = "mqtt://";

std::string objectId(std::string_view mac) {
    std::string id = "hostrix_";
    for (char c : mac)
        if (c != ':') id += c;
    return id;
}

// The best name the agent has, else the one an earlier run stored, else the MAC.
std::string displayName(const Device &device, int64_t now) {
    std::vector<DeviceName> names = deviceNames(device, now);
    if (!names.empty()) return names.front().name;
    return device.storedName.empty() ? device.macText : device.storedName;
}

std::string configPayload(const Device &device, const std::string &base, int64_t now) {
    std::string connections = "[[\"mac\"," + jsonQuote(device.macText) + "]]";
    JsonObject owner;
    owner.raw("connections", connections).text("name", displayName(device, now));
    if (!device.vendor.empty()) owner.text("manufacturer", device.vendor);
    JsonObject config;
    config
        .raw("name", "null")  // the entity is the device's main feature: its name
        .text("unique_id", objectId(device.macText))
        .text("source_type", "router")
        .text("state_topic", base + "/state")
        .text("json_attributes_topic", base + "/attributes")
        .text("payload_home", "home")
        .text("payload_not_home", "not_home")
        .text("availability_topic", kMqttStatusTopic)
        .text("payload_available", kMqttOnline)
        .text("payload_not_available", kMqttOffline)
        .raw("device", owner.str());
    return config.str();
}

std::string attributesPayload(const Device &device, std::string_view kernelIfName,
                              const std::vector<std::string> &linkedMacs, int64_t now) {
    const lanHostInfo_t &r = device.record;
    bool wireless = r.connectionType == CONNECTION_WIRELESS;
    JsonObject attributes;
    attributes.text("mac", device.macText).text("name", displayName(device, now));
    if (r.ip != 0) attributes.text("ip", ipv4Text(r.ip));
    if (std::any_of(r.ipv6, r.ipv6 + kIpv6Len, [](uint8_t b) { return b != 0; }))
        attributes.text("ipv6", ipv6Text(r.ipv6));
    attributes.text("vendor", device.vendor).text("osFamily", osFamilyName(device.os));
    attributes.boolean("randomMac", device.randomMac);
    attributes.text("interface", fieldText(r.ifName)).text("kernelInterface", kernelIfName);
    attributes.text("connection", wireless ? "wireless" : "wired");
    if (wireless)
        attributes.text("ssid", fieldText(r.ssidName)).signedNumber("signal", r.rssi);
    else
        attributes.number("port", r.port);
    attributes.text("firstSeen", utcText(device.firstSeen));
    attributes.raw("linkedMacs", textArray(linkedMacs));
    return attributes.str();
}

std::optional<int> parsePort(std::string_view text) {
    int port = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    if (error != std::errc{} || end != text.data() + text.size() || port < 1 || port > 65535)
        return std::nullopt;
    return port;
}

}  // namespace

std::optional<MqttBroker> parseMqttUrl(std::string_view url, std::string &why) {
    if (url.starts_with(kScheme))
        url.remove_prefix(kScheme.size());
    else if (url.find("://") != std::string_view::npos)
        return why = "only mqtt:// is supported (no TLS)", std::nullopt;
    if (url.ends_with('/')) url.remove_suffix(1);
    if (url.find_first_of("/@?# ") != std::string_view::npos)
        return why = "expected mqtt://HOST[:PORT] (credentials go in mqtt_user, mqtt_password)",
               std::nullopt;
    MqttBroker broker;
    std::string_view port;
    if (url.starts_with('[')) {  // [IPv6]:PORT
        size_t close = url.find(']');
        if (close == std::string_view::npos)
            return why = "no ']' after the IPv6 address", std::nullopt;
        broker.host = url.substr(1, close - 1);
        std::string_view rest = url.substr(close + 1);
        if (!rest.empty() && (!rest.starts_with(':') || rest.size() == 1))
            return why = "expected :PORT after ']'", std::nullopt;
        if (!rest.empty()) port = rest.substr(1);
    } else {
        size_t colon = url.find(':');
        if (colon != url.rfind(':'))
            return why = "write an IPv6 address as [ADDRESS]", std::nullopt;
        broker.host = url.substr(0, colon);
        if (colon != std::string_view::npos) port = url.substr(colon + 1);
        if (colon != std::string_view::npos && port.empty())
            return why = "empty port", std::nullopt;
    }
    if (broker.host.empty()) return why = "no host", std::nullopt;
    if (!port.empty()) {
        std::optional<int> number = parsePort(port);
        if (!number) return why = "the port must be 1..65535", std::nullopt;
        broker.port = *number;
    }
    return broker;
}

MqttDeviceMessages deviceMessages(const Device &device, std::string_view kernelIfName,
                                  const std::vector<std::string> &linkedMacs, int64_t now) {
    std::string base = "hostrix/" + device.macText;
    MqttDeviceMessages messages;
    messages.mac = device.macText;
    messages.config = {"homeassistant/device_tracker/" + objectId(device.macText) + "/config",
                       configPayload(device, base, now)};
    messages.state = {base + "/state", device.online ? "home" : "not_home"};
    messages.attributes = {base + "/attributes",
                           attributesPayload(device, kernelIfName, linkedMacs, now)};
    return messages;
}
