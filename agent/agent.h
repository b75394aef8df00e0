// hostrix-agent: the single reader of the daemon, and what it serves. One thread,
// one poll loop: once a second it asks the daemon for new, departed and changed
// hosts and checks the host file; in between it serves subscribers, DHCP
// fingerprints from the hook and mDNS answers as they come.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "config.h"
#include "daemon_link.h"
#include "device.h"
#include "event_ring.h"
#include "history.h"
#include "mdns_listener.h"
#include "mqtt_link.h"
#include "oui.h"
#include "platform/ifname_map.h"
#include "subscribers.h"
#include "web_server.h"

inline constexpr int64_t kMaxDevicesInMemory = 4096;
inline constexpr size_t kMaxMdnsCache = 1024;
inline constexpr int64_t kHousekeepingSeconds = 60;
inline constexpr int64_t kRefreshLastSeenSeconds = 3600;
// A daemon that has just started writes host files before its discovery has
// found every host again: those files tell arrivals, not departures.
inline constexpr int64_t kDaemonSettleSeconds = 15;

class Agent {
public:
    explicit Agent(AgentConfig config);
    // Sets up and runs until SIGTERM or SIGINT; the exit status.
    int run();

private:
    // agent.cpp: set-up, the loop, the daemon, subscribers, history.
    bool setUp();
    void loadHistory();
    void openSideChannels();
    void loop();
    void servePoll(const std::vector<pollfd> &fds, size_t hubAt);
    void tick();
    bool pollDaemon();
    void daemonAway(const std::string &why);
    void reconcile(const HostFileRead &file);
    void closeStaleSessions();
    std::string greet(const SubscriberRequest &request);
    std::string snapshot();
    void flushHistory();
    void housekeeping();

    // agent_devices.cpp: what happens to a device.
    Device &deviceFor(const Mac &mac);
    void arrived(const lanHostInfo_t &record, int64_t confirmedAt);
    void departed(const lanHostInfo_t &record);
    void changed(const lanHostInfo_t &record);
    void dhcpReported(const DhcpReport &report);
    void mdnsHeard(const std::vector<MdnsAddress> &records);
    void attachMdnsName(Device &device);
    bool setDaemonFields(Device &device);
    void emit(std::string_view kind, Device &device);
    void markDirty(Device &device) { dirty_.insert(device.mac); }
    std::vector<std::string> linkedMacs(const Device &device) const;
    void expireNames();
    void pruneDevices();
    DeviceRow rowOf(const Device &device) const;

    // agent_web.cpp: the web page, its event stream and /metrics.
    void startWeb();
    std::string streamGreeting(std::optional<uint64_t> lastEventId);
    std::optional<std::string> deviceDetail(const std::string &mac);
    std::vector<SessionChange> sessionsOf(const std::string &mac);
    std::string metricsPage();
    // mqtt_agent.cpp: Home Assistant over MQTT.
    void startMqtt();
    MqttDeviceMessages mqttMessages(const Device &device) const;
    std::optional<MqttDeviceMessages> mqttDeviceAfter(const std::string &after);

    AgentConfig config_;
    int64_t now_ = 0;      // Unix seconds, set each loop turn
    int64_t nowMono_ = 0;  // monotonic seconds
    std::map<Mac, Device> devices_;
    EventRing ring_;
    std::unique_ptr<SubscriberHub> hub_;
    std::unique_ptr<MqttLink> mqtt_;  // none without mqtt_url
    UniqueFd signals_, dhcp_;
    MdnsSockets mdns_;
    History history_;
    OuiDb oui_;
    IfnameMap ifnames_;
    std::set<Mac> dirty_, dirtyPrints_;
    std::vector<SessionChange> sessionChanges_;
    std::map<std::string, int64_t> staleSessions_;  // open at start-up: mac, start
    bool staleSessionsClosed_ = false;
    std::optional<SocketIdentity> identity_;
    int64_t fileWritten_ = 0;
    int64_t daemonStarted_ = 0;  // wall second its control socket was made
    int64_t nextTick_ = 0, nextFlush_ = 0, nextHousekeeping_ = 0, nextLastSeenRefresh_ = 0;
    struct MdnsSeen {
        std::string name;
        int64_t heard = 0;
    };
    std::map<std::array<uint8_t, 17>, MdnsSeen> mdnsCache_;  // family byte + address
    bool stop_ = false;
    std::map<std::string, uint64_t, std::less<>> eventCounts_;  // by kind, for /metrics
    std::unique_ptr<WebServer> web_;  // last: it goes first, before what it shows
};
