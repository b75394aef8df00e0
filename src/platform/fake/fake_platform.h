// In-memory platform for unit tests: settings, interfaces, forwarding database,
// leases, stations, port ids, counters, clocks and canned command output are all
// programmed here, and every command line the daemon runs is recorded.
#pragma once

#include <array>
#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "platform/mib.h"

namespace fake {

using Mac = std::array<uint8_t, 6>;

struct FdbRow {
    Mac mac{};
    std::string ifname;
    uint32_t ageing = 0;  // hundredths of a second
    uint16_t vid = 0;
    uint8_t isLocal = 0;
};

struct Interface {
    int flags = 0;
    uint32_t addr = 0;  // network byte order; 0 = none
    Mac mac{};
    bool hasMac = false;
    int macResult = 0;  // what getMacAddr answers when it has the MAC
};

struct CounterPair {
    uint64_t sent = 0;
    uint64_t received = 0;
};

struct State {
    // Configuration store.
    std::map<int, uint32_t> settings;                 // by id
    std::vector<std::vector<uint8_t>> wanChain;       // chain 3004 records (1060 bytes)
    std::map<std::string, std::string> ssids;         // by interface name
    std::array<std::string, kLanPortCount> lanPorts{"eth0.2", "eth0.3", "eth0.4", "eth0.5"};
    std::array<std::string, kWlanRootCount> wlanRoots{"wlan0", "wlan1"};
    std::map<std::string, Interface> interfaces;
    std::map<std::string, std::string> kernelNames;  // gateway name -> kernel name
    bool timeSynchronized = false;

    // Discovery sources.
    std::vector<FdbRow> fdb;
    std::vector<dhcp_lease> leases;
    bool leasesChanged = false;  // what isDhcpClientLeasesDBChanged answers
    std::map<std::string, std::vector<wlStaInfo>> stations;  // by interface name

    // Switch and forwarding engine.
    std::map<std::string, int> phyIds;    // by interface name
    std::map<std::string, int> logicIds;  // by interface name
    std::map<int, int> portSpeedCodes;    // by physical port id
    std::map<std::string, std::string> wirelessModes;
    std::vector<std::pair<std::string, std::array<uint8_t, 16>>> neighSolicits;
    std::map<Mac, CounterPair> counters;    // plain set, by MAC
    std::map<Mac, CounterPair> fcCounters;  // fc set, by MAC
    std::vector<std::pair<Mac, int>> hpcUpdates;  // (MAC, on) in call order, both sets
    int counterInitCalls = 0;
    int hpcCommits = 0;  // zvt_commit_lan_hpc calls

    // Commands: every line run (va_cmd arguments joined by spaces, os_system and
    // os_popen_read lines verbatim), canned output by exact line, and a hook that
    // can give a command side effects (for example create a file).
    std::vector<std::string> commands;
    std::map<std::string, std::string> commandOutput;
    std::function<void(const std::string &)> onCommand;

    // Kernel files (/proc, /sys) by path; absent = cannot be opened. A path that some
    // key lies under is a directory ("/sys/class/net/br0/lower_eth0.2" makes br0 one).
    std::map<std::string, std::string> kernelFiles;

    // The group os_socket_group answers; -1 = none.
    int socketGroup = -1;
    // Called at every setting read, so that a test can act in the middle of work.
    std::function<void(int id)> onSettingRead;

    // Clocks.
    timespec monotonic{1000, 0};
    bool monotonicFails = false;
    time_t wall = 1700000000;
    long wallUsec = 0;
    bool wallFails = false;  // gettimeofday fails
    long uptime = 5000;
};

State &state();
// Back to a freshly booted fake: no settings, no hosts, clocks at their start values.
void reset();

Mac mac(uint8_t a, uint8_t b, uint8_t c, uint8_t d, uint8_t e, uint8_t f);
void advanceSeconds(long seconds);  // moves the monotonic clock, wall clock and uptime
// An associated station MAC on IFNAME, which is brought up. The list's position 0,
// which the daemon never reads, is filled first.
wlStaInfo &addStation(const std::string &ifname, const Mac &mac);
std::vector<uint8_t> wanChainRecord(uint8_t enable, uint8_t mode, uint32_t ports);

// Backend internals shared by the fake's files.
void recordCommand(const std::string &line);
void refreshPortTables();

}  // namespace fake
