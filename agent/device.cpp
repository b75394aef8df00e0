#include "device.h"

#include <cstring>
#include <ctime>

#include "format.h"

std::string namesJson(const std::vector<DeviceName> &names) {
    std::string json = "[";
    for (const DeviceName &entry : names) {
        if (json.size() > 1) json += ',';
        json += JsonObject().text("name", entry.name).text("source", entry.source).str();
    }
    return json + "]";
}

std::string textArray(const std::vector<std::string> &items) {
    std::string json = "[";
    for (const std::string &item : items) {
        if (json.size() > 1) json += ',';
        json += jsonQuote(item);
    }
    return json + "]";
}

namespace {

bool addName(std::vector<DeviceName> &names, std::string name, std::string_view source) {
    if (name.empty()) return false;
    for (const DeviceName &entry : names)
        if (entry.name == name) return false;
    names.push_back({std::move(name), source});
    return true;
}

template <size_t N>
bool sameField(const char (&a)[N], const char (&b)[N]) {
    return strncmp(a, b, N) == 0;
}

}  // namespace

std::vector<DeviceName> deviceNames(const Device &device, int64_t now) {
    std::vector<DeviceName> names;
    if (device.dhcp) addName(names, device.dhcp->hostname, "dhcp");
    if (device.haveRecord) addName(names, fieldText(device.record.devName), "lease");
    if (!device.mdnsName.empty() && now - device.mdnsHeard <= kNameLifetimeSeconds)
        addName(names, device.mdnsName, "mdns");
    return names;
}

std::string hostJson(const Device &device, std::string_view kernelIfName,
                     const std::vector<std::string> &linkedMacs, int64_t now) {
    JsonObject object;
    addHostFields(device.record, object);
    object.text("kernelIfName", kernelIfName);
    object.text("vendor", device.vendor).boolean("randomMac", device.randomMac);
    object.text("osFamily", osFamilyName(device.os));
    object.raw("names", namesJson(deviceNames(device, now)));
    object.text("firstSeen", utcText(device.firstSeen)).text("lastSeen", utcText(device.lastSeen));
    object.raw("linkedMacs", textArray(linkedMacs));
    return object.str();
}

bool sameIdentity(const lanHostInfo_t &a, const lanHostInfo_t &b) {
    return a.ip == b.ip && std::memcmp(a.ipv6, b.ipv6, sizeof a.ipv6) == 0 &&
           sameField(a.devName, b.devName) && sameField(a.ifName, b.ifName) &&
           a.port == b.port && a.connectionType == b.connectionType &&
           sameField(a.brand, b.brand) && sameField(a.model, b.model) && sameField(a.os, b.os) &&
           sameField(a.ssidName, b.ssidName) && a.devType == b.devType &&
           a.internetAccess == b.internetAccess;
}

bool sameReported(const lanHostInfo_t &a, const lanHostInfo_t &b) {
    auto strip = [](lanHostInfo_t record) {
        record.onLineTime = record.upRate = record.downRate = 0;
        record.rxBytes = record.txBytes = 0;
        record.firstConnect = record.disConnect = 0;
        return record;
    };
    lanHostInfo_t x = strip(a), y = strip(b);
    return std::memcmp(&x, &y, sizeof x) == 0;
}
