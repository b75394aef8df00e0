// The configuration file's contents and its parser. The parser is pure: it reads only
// the text it is given, so the fuzzer and the tests drive it without any file.
//
// Format: "key = value" lines; '#' starts a comment anywhere in a line (so no value
// can contain '#'); blank lines are fine; a later line for the same key wins, except
// chain rows, which accumulate in file order.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "platform/ifname_map.h"
#include "platform/mib.h"

inline constexpr size_t kMibMaxLineBytes = 1024;  // longer lines are skipped whole
inline constexpr size_t kMibMaxChainRows = 64;    // per chain
inline constexpr size_t kMibMaxSsidBytes = 32;    // as on the air
inline constexpr size_t kMibMaxIfNameBytes = 15;  // IFNAMSIZ - 1
inline constexpr size_t kMibMaxGroupBytes = 32;   // as useradd allows
inline constexpr std::string_view kMibDefaultLeaseFile = "/var/lib/misc/dnsmasq.leases";
inline constexpr std::array<const char *, kLanPortCount> kMibDefaultLanPorts = {"eth0.2", "eth0.3",
                                                                                "eth0.4", "eth0.5"};
inline constexpr std::array<const char *, kWlanRootCount> kMibDefaultWlanRoots = {"wlan0", "wlan1"};

// One row of the WAN-connection chain, before it is laid out as a 1060-byte record.
struct MibChainRow {
    uint8_t enable = 0;
    uint8_t mode = 0;
    uint32_t ports = 0;
    bool operator==(const MibChainRow &) const = default;
};

enum class MibStationSource { Nl80211, Directory };
enum class MibCounterSource { Nftables, Off };
// Native: the backend carries out the command lines it knows without a child process.
enum class MibCommandMode { Native, Shell };

struct MibConfig {
    std::map<int, uint32_t> settings;
    std::vector<MibChainRow> wanConnections;  // chain 3004
    // An empty name is a port the file leaves out ("lan_ports = eth0.2" names one).
    std::array<std::string, kLanPortCount> lanPorts = {
        kMibDefaultLanPorts[0], kMibDefaultLanPorts[1], kMibDefaultLanPorts[2],
        kMibDefaultLanPorts[3]};
    std::array<std::string, kWlanRootCount> wlanRoots = {kMibDefaultWlanRoots[0],
                                                         kMibDefaultWlanRoots[1]};
    std::string leaseFile{kMibDefaultLeaseFile};
    std::map<std::string, std::string, std::less<>> ssids;  // by interface name
    std::map<std::string, int, std::less<>> phyIds;
    std::map<std::string, int, std::less<>> logicIds;
    MibStationSource stations = MibStationSource::Nl80211;
    std::string stationDir;  // with MibStationSource::Directory
    MibCounterSource counters = MibCounterSource::Nftables;
    MibCommandMode commands = MibCommandMode::Native;
    IfnameMap ifnames;  // gateway name -> kernel name
    // The group given the sockets and the FIFO (mode 0660); empty = root alone (0600).
    // Looked up when they are made; the line is for the report of an unknown group.
    std::string socketGroup;
    unsigned socketGroupLine = 0;
    bool operator==(const MibConfig &) const = default;
};

// Told about each skipped line: its 1-based number and why, e.g.
// "bad number \"0xZZ\" for setting 480". The caller adds the file name.
using MibErrorSink = std::function<void(unsigned line, std::string_view reason)>;

// Applies every good line of TEXT to OUT (which holds the defaults on entry) and
// reports every other line to SINK. Returns the number of lines skipped.
unsigned parseMibConfig(std::string_view text, MibConfig &out, const MibErrorSink &sink);

// True for a name the kernel would accept for a network interface.
bool mibValidIfName(std::string_view name);
