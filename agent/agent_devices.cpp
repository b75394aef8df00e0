// What happens to a device: arrivals, departures and changes from the daemon,
// fingerprints from the DHCP hook, names from mDNS; the events they make, and the
// brand and os the agent hands back to the daemon.
#include <algorithm>
#include <cstring>

#include "agent.h"
#include "args.h"
#include "format.h"
#include "linking.h"
#include "log.h"

namespace {

constexpr std::string_view kUnknown = "OTHER";

Mac macOf(const lanHostInfo_t &record) {
    Mac mac;
    std::memcpy(mac.data(), record.mac, mac.size());
    return mac;
}

std::array<uint8_t, 17> cacheKey(bool ipv6, const uint8_t *address) {
    std::array<uint8_t, 17> key{};
    key[0] = ipv6 ? 6 : 4;
    std::memcpy(key.data() + 1, address, ipv6 ? 16 : 4);
    return key;
}

bool isZero(const uint8_t *bytes, size_t size) {
    return std::all_of(bytes, bytes + size, [](uint8_t b) { return b == 0; });
}

template <size_t N>
void storeText(char (&field)[N], std::string_view text) {
    std::memset(field, 0, N);
    std::memcpy(field, text.data(), std::min(text.size(), N - 1));
}

}  // namespace

Device &Agent::deviceFor(const Mac &mac) {
    auto [at, added] = devices_.try_emplace(mac);
    Device &device = at->second;
    if (!added) return device;
    device.mac = mac;
    device.macText = formatMac(mac.data());
    device.randomMac = isRandomMac(mac);
    if (!device.randomMac) device.vendor = std::string(oui_.lookup(mac));
    device.firstSeen = device.lastSeen = now_;
    if (std::optional<DeviceRow> row = history_.device(device.macText)) {
        device.firstSeen = row->firstSeen, device.lastSeen = row->lastSeen;
        device.linkedTo = row->linkedTo;
        device.storedName = row->name, device.storedNameSource = row->nameSource;
    } else {
        markDirty(device);
    }
    return device;
}

void Agent::arrived(const lanHostInfo_t &record, int64_t confirmedAt) {
    Device &device = deviceFor(macOf(record));
    bool wasOnline = device.online, hadRecord = device.haveRecord;
    lanHostInfo_t before = device.record;
    device.record = record, device.haveRecord = true, device.online = true;
    device.confirmedAt = std::max(device.confirmedAt, confirmedAt);
    device.lastSeen = now_;
    attachMdnsName(device);
    if (!wasOnline) {
        auto stale = staleSessions_.find(device.macText);
        device.sessionFrom = stale != staleSessions_.end() ? stale->second : now_;
        if (stale != staleSessions_.end()) staleSessions_.erase(stale);
        else sessionChanges_.push_back({device.macText, device.sessionFrom, std::nullopt});
        device.brandTried = device.osTried = false;
        setDaemonFields(device);
        markDirty(device);
        return emit("new", device);
    }
    bool updated = setDaemonFields(device);
    if (updated || !hadRecord || !sameIdentity(before, device.record)) {
        markDirty(device);
        emit("changed", device);
    }
}

void Agent::departed(const lanHostInfo_t &record) {
    auto at = devices_.find(macOf(record));
    if (at == devices_.end() || !at->second.online) return;  // never seen online
    Device &device = at->second;
    device.record = record, device.online = false, device.lastSeen = now_, device.leftAt = now_;
    sessionChanges_.push_back({device.macText, device.sessionFrom, now_});
    device.sessionFrom = 0;
    markDirty(device);
    emit("left", device);
}

void Agent::changed(const lanHostInfo_t &record) {
    Device &device = deviceFor(macOf(record));
    if (!device.online) return arrived(record, now_);
    bool same = sameReported(device.record, record);
    device.record = record, device.confirmedAt = now_, device.lastSeen = now_;
    attachMdnsName(device);
    if (!setDaemonFields(device) && same) return;
    markDirty(device);
    emit("changed", device);
}

void Agent::dhcpReported(const DhcpReport &report) {
    Device &device = deviceFor(report.mac);
    device.dhcp = report, device.dhcpSeen = now_;
    OsMatch match = classifyOs(report);
    device.os = match.family;
    if (device.linkedTo.empty() && device.randomMac) {
        std::vector<KnownDevice> known;
        for (const auto &[mac, other] : devices_)
            if (other.dhcp && &other != &device)
                known.push_back({other.macText, other.lastSeen, other.linkedTo, *other.dhcp});
        if (std::optional<std::string> root = findLink(report, now_, known)) {
            device.linkedTo = *root;
            agentLog(device.macText + " is linked to " + *root + " (same DHCP client)");
        }
    }
    dirtyPrints_.insert(device.mac);
    markDirty(device);
    if (!device.online) return;
    setDaemonFields(device);
    emit("changed", device);
}

void Agent::mdnsHeard(const std::vector<MdnsAddress> &records) {
    for (const MdnsAddress &record : records) {
        if (record.ttl == 0) continue;  // a goodbye: the name stays until it expires
        if (mdnsCache_.size() >= kMaxMdnsCache) {
            auto oldest = std::min_element(mdnsCache_.begin(), mdnsCache_.end(), [](auto &a, auto &b) {
                return a.second.heard < b.second.heard;
            });
            mdnsCache_.erase(oldest);
        }
        mdnsCache_[cacheKey(record.ipv6, record.address.data())] = {record.name, now_};
    }
    for (auto &[mac, device] : devices_) {
        if (!device.online) continue;
        std::string before = device.mdnsName;
        attachMdnsName(device);
        if (device.mdnsName != before) {
            agentLog(device.macText + " is " + escapeText(device.mdnsName) + ".local (mDNS)");
            markDirty(device);
            emit("changed", device);
        }
    }
}

// The freshest mDNS name for the device's addresses.
void Agent::attachMdnsName(Device &device) {
    const lanHostInfo_t &r = device.record;
    const MdnsSeen *best = nullptr;
    auto consider = [&](bool ipv6, const uint8_t *address, size_t size) {
        if (isZero(address, size)) return;
        auto at = mdnsCache_.find(cacheKey(ipv6, address));
        if (at != mdnsCache_.end() && (!best || at->second.heard > best->heard)) best = &at->second;
    };
    consider(false, reinterpret_cast<const uint8_t *>(&r.ip), sizeof r.ip);
    consider(true, r.ipv6, sizeof r.ipv6);
    if (!best || now_ - best->heard > kNameLifetimeSeconds) return;
    device.mdnsName = best->name, device.mdnsHeard = best->heard;
}

// Brand from the vendor and os from the fingerprint, where the daemon still holds
// OTHER; asked again just before writing, so a value someone else set in between
// is kept. Tried once a session: a refusal is not retried every second.
bool Agent::setDaemonFields(Device &device) {
    if (!config_.agentSets || !device.online) return false;
    bool updated = false;
    auto trySet = [&](bool &tried, std::string_view want, char (&field)[kHostTextLen],
                      uint32_t getCmd, uint32_t setCmd) {
        if (tried || want.empty() || fieldText(field) != kUnknown) return;
        tried = true;
        std::optional<std::string> current = getHostText(getCmd, device.mac.data());
        if (current != kUnknown || !setHostText(setCmd, device.mac.data(), want)) return;
        storeText(field, want);
        updated = true;
    };
    trySet(device.brandTried, device.vendor, device.record.brand, CMD_GET_BRAND, CMD_SET_BRAND);
    trySet(device.osTried, osFamilyLabel(device.os), device.record.os, CMD_GET_OS, CMD_SET_OS);
    return updated;
}

void Agent::emit(std::string_view kind, Device &device) {
    uint64_t seq = ring_.lastSeq() + 1;
    std::string host = hostJson(device, ifnames_.kernelOf(fieldText(device.record.ifName)),
                                linkedMacs(device), now_);
    std::string line = "{\"type\":\"event\",\"seq\":" + std::to_string(seq) + ",\"time\":\"" +
                       utcText(now_) + "\",\"event\":\"" + std::string(kind) + "\",\"host\":" +
                       host + "}";
    hub_->broadcast(line);
    ++eventCounts_[std::string(kind)];
    if (web_) web_->publish(seq, line);
    ring_.push(std::move(line));
    if (mqtt_ && device.haveRecord) mqtt_->publish(mqttMessages(device));
}

std::vector<std::string> Agent::linkedMacs(const Device &device) const {
    const std::string &root = device.linkedTo.empty() ? device.macText : device.linkedTo;
    std::vector<std::string> macs;
    for (const auto &[mac, other] : devices_) {
        if (&other == &device) continue;
        if (other.macText == root || other.linkedTo == root) macs.push_back(other.macText);
    }
    return macs;
}

void Agent::expireNames() {
    for (auto it = mdnsCache_.begin(); it != mdnsCache_.end();)
        it = now_ - it->second.heard > kNameLifetimeSeconds ? mdnsCache_.erase(it) : std::next(it);
    for (auto &[mac, device] : devices_) {
        if (device.mdnsName.empty() || now_ - device.mdnsHeard <= kNameLifetimeSeconds) continue;
        device.mdnsName.clear();
        markDirty(device);
        if (device.online) emit("changed", device);
    }
}

// Devices neither online, pending a write, nor seen within the linking window
// live on in the database only; past the memory bound, the longest unseen go first.
void Agent::pruneDevices() {
    auto removable = [&](const Device &d) {
        return !d.online && !dirty_.contains(d.mac) && !dirtyPrints_.contains(d.mac);
    };
    std::erase_if(devices_, [&](const auto &entry) {
        return removable(entry.second) && now_ - entry.second.lastSeen > kLinkWindowSeconds;
    });
    while (devices_.size() > static_cast<size_t>(kMaxDevicesInMemory)) {
        auto oldest = devices_.end();
        for (auto it = devices_.begin(); it != devices_.end(); ++it)
            if (removable(it->second) && (oldest == devices_.end() ||
                                          it->second.lastSeen < oldest->second.lastSeen))
                oldest = it;
        if (oldest == devices_.end()) break;
        devices_.erase(oldest);
    }
}

DeviceRow Agent::rowOf(const Device &device) const {
    DeviceRow row;
    row.mac = device.macText, row.firstSeen = device.firstSeen, row.lastSeen = device.lastSeen;
    row.vendor = device.vendor, row.randomMac = device.randomMac;
    std::vector<DeviceName> names = deviceNames(device, now_);
    row.name = names.empty() ? device.storedName : names.front().name;
    row.nameSource = names.empty() ? device.storedNameSource : std::string(names.front().source);
    row.osFamily = osFamilyName(device.os);
    if (device.haveRecord) {
        if (device.record.ip != 0) row.lastIpv4 = ipv4Text(device.record.ip);
        if (!isZero(device.record.ipv6, kIpv6Len)) row.lastIpv6 = ipv6Text(device.record.ipv6);
        row.lastIfname = fieldText(device.record.ifName);
    }
    row.linkedTo = device.linkedTo;
    return row;
}
