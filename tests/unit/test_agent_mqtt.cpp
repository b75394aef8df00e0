// Home Assistant's messages: which mqtt_url forms are taken, and what a device's messages
// carry beyond what the lab's MQTT test reads (its discovery config, state and address).
#include <gtest/gtest.h>

#include <cstring>

#include "mqtt_messages.h"

namespace {

TEST(AgentMqttUrl, TakesHostPortAndBracketedIpv6Only) {
    const std::pair<const char *, std::optional<MqttBroker>> cases[] = {
        {"mqtt://10.0.0.2", MqttBroker{"10.0.0.2", 1883}},
        {"mqtt://broker.lan:1884/", MqttBroker{"broker.lan", 1884}},
        {"10.0.0.2:8883", MqttBroker{"10.0.0.2", 8883}},
        {"mqtt://[fd00::2]:1885", MqttBroker{"fd00::2", 1885}},
        {"mqtt://[fd00::2]", MqttBroker{"fd00::2", 1883}},
        {"mqtt://fd00::2", std::nullopt},  // ambiguous without brackets
        {"mqtts://10.0.0.2", {}},      {"mqtt://user@10.0.0.2", {}},   {"mqtt://10.0.0.2:0", {}},
        {"mqtt://10.0.0.2:65536", {}}, {"mqtt://10.0.0.2:", {}},       {"mqtt://10.0.0.2:18x", {}},
        {"mqtt://[fd00::2", {}},       {"mqtt://[fd00::2]x1885", {}},  {"mqtt://", {}},
        {"mqtt://host/path", {}},
    };
    for (const auto &[url, want] : cases) {
        std::string why;
        EXPECT_EQ(parseMqttUrl(url, why), want) << url;
        EXPECT_EQ(why.empty(), want.has_value()) << url << ": " << why;
    }
}

TEST(AgentMqttMessages, AWirelessDeviceCarriesItsRadioAndEscapedName) {
    Device device;
    device.macText = "0a:77:00:00:00:03";
    device.haveRecord = true;
    device.record.connectionType = CONNECTION_WIRELESS;
    device.record.rssi = -52;
    std::strcpy(device.record.devName, "tv \"den\"");
    std::strcpy(device.record.ssidName, "home");
    std::strcpy(device.record.ifName, "wlan0");
    MqttDeviceMessages m = deviceMessages(device, "phy0-ap0", {}, 0);
    EXPECT_NE(m.config.payload.find("\"name\":\"tv \\\"den\\\"\""), std::string::npos);
    for (const char *field : {"\"ssid\":\"home\"", "\"signal\":-52", "\"interface\":\"wlan0\"",
                              "\"kernelInterface\":\"phy0-ap0\""})
        EXPECT_NE(m.attributes.payload.find(field), std::string::npos) << field;
}

}  // namespace
