// Home Assistant's messages: which mqtt_url forms are taken, and the topics and
// fields a device's messages must carry for discovery to find it.
#include <gtest/gtest.h>

#include <cstring>

#include "mqtt_messages.h"

namespace {

struct UrlCase {
    const char *url;
    std::optional<MqttBroker> want;
};

TEST(AgentMqttUrl, TakesHostPortAndBracketedIpv6Only) {
    const UrlCase cases[] = {
        {"mqtt://10.0.0.2", MqttBroker{"10.0.0.2", 1883}},
        {"mqtt://broker.lan:1884/", MqttBroker{"broker.lan", 1884}},
        {"10.0.0.2:8883", MqttBroker{"10.0.0.2", 8883}},
        {"mqtt://[fd00::2]:1885", MqttBroker{"fd00::2", 1885}},
        {"mqtt://[fd00::2]", MqttBroker{"fd00::2", 1883}},
        {"mqtt://fd00::2", std::nullopt},  // ambiguous without brackets
        {"mqtts://10.0.0.2", std::nullopt},
        {"mqtt://user@10.0.0.2", std::nullopt},
        {"mqtt://10.0.0.2:0", std::nullopt},
        {"mqtt://10.0.0.2:65536", std::nullopt},
        {"mqtt://10.0.0.2:", std::nullopt},
        {"mqtt://10.0.0.2:18x", std::nullopt},
        {"mqtt://[fd00::2", std::nullopt},
        {"mqtt://[fd00::2]x", std::nullopt},
        {"mqtt://", std::nullopt},
        {"mqtt://host/path", std::nullopt},
    };
    for (const UrlCase &c : cases) {
        std::string why;
        EXPECT_EQ(parseMqttUrl(c.url, why), c.want) << c.url;
        EXPECT_EQ(why.empty(), c.want.has_value()) << c.url << ": " << why;
    }
}

Device wirelessDevice(bool online) {
    Device device;
    device.macText = "0a:77:00:00:00:03";
    device.online = online, device.haveRecord = true;
    device.record.connectionType = CONNECTION_WIRELESS;
    device.record.rssi = -52;
    std::strcpy(device.record.devName, "tv \"den\"");
    std::strcpy(device.record.ssidName, "home");
    std::strcpy(device.record.ifName, "wlan0");
    return device;
}

TEST(AgentMqttMessages, TopicsAndFieldsForOneDevice) {
    MqttDeviceMessages m = deviceMessages(wirelessDevice(true), "phy0-ap0", {}, 0);
    EXPECT_EQ(m.config.topic, "homeassistant/device_tracker/hostrix_0a7700000003/config");
    EXPECT_EQ(m.state.topic, "hostrix/0a:77:00:00:00:03/state");
    EXPECT_EQ(m.state.payload, "home");
    EXPECT_EQ(m.attributes.topic, "hostrix/0a:77:00:00:00:03/attributes");
    for (const char *field :
         {"\"unique_id\":\"hostrix_0a7700000003\"", "\"source_type\":\"router\"",
          "\"connections\":[[\"mac\",\"0a:77:00:00:00:03\"]]",
          "\"state_topic\":\"hostrix/0a:77:00:00:00:03/state\"",
          "\"json_attributes_topic\":\"hostrix/0a:77:00:00:00:03/attributes\"",
          "\"availability_topic\":\"hostrix/status\"", "\"name\":\"tv \\\"den\\\"\""})
        EXPECT_NE(m.config.payload.find(field), std::string::npos) << field;
    for (const char *field :
         {"\"ssid\":\"home\"", "\"signal\":-52", "\"kernelInterface\":\"phy0-ap0\""})
        EXPECT_NE(m.attributes.payload.find(field), std::string::npos) << field;
    EXPECT_EQ(deviceMessages(wirelessDevice(false), "", {}, 0).state.payload, "not_home");
}

}  // namespace
