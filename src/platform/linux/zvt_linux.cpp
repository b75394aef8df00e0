// The switch library on a plain Linux box: port ids come from the configuration file,
// link and speed from sysfs, station rates from the station records. Station modes live
// with the station sources, neighbour solicitation and the traffic counters in their
// own files.
#include "platform/linux/zvt_linux.h"

#include <fcntl.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/unique_fd.h"
#include "platform/linux/mib_store.h"
#include "platform/mib.h"
#include "platform/zvt.h"
#include "platform/os.h"

namespace {

constexpr size_t kSysPathBytes = 96;
constexpr size_t kSysValueBytes = 32;
constexpr int kDuplexHalf = 0;
constexpr int kDuplexFull = 1;

int idOf(const std::map<std::string, int, std::less<>> &ids, const char *ifname) {
    if (!ifname) return -1;
    auto it = ids.find(std::string_view(ifname));
    return it == ids.end() ? -1 : it->second;
}

// The configured LAN port whose physical id is PHY, or nullptr.
const char *lanPortWithPhy(int phy) {
    const MibConfig &config = mibConfigCurrent();
    for (const std::string &port : config.lanPorts) {
        if (phy >= 0 && !port.empty() && idOf(config.phyIds, port.c_str()) == phy)
            return port.c_str();
    }
    return nullptr;
}

// One short sysfs attribute of a network interface, without its newline.
bool readNetAttribute(const char *ifname, const char *attribute, char *value) {
    char path[kSysPathBytes];
    int n = std::snprintf(path, sizeof path, "/sys/class/net/%s/%s",
                          os_kernel_ifname(ifname).c_str(), attribute);
    if (n < 0 || static_cast<size_t>(n) >= sizeof path) return false;
    UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) return false;
    ssize_t got;
    do {
        got = read(fd.get(), value, kSysValueBytes - 1);
    } while (got < 0 && errno == EINTR);
    if (got <= 0) return false;
    value[got] = '\0';
    value[std::strcspn(value, "\n")] = '\0';
    return true;
}

bool readNetNumber(const char *ifname, const char *attribute, long &number) {
    char value[kSysValueBytes];
    if (!readNetAttribute(ifname, attribute, value)) return false;
    char *end = nullptr;
    errno = 0;
    number = std::strtol(value, &end, 10);
    return errno == 0 && end != value && *end == '\0';
}

// kDuplexFull, kDuplexHalf, or -1 when sysfs does not say.
int duplexOf(const char *port) {
    char mode[kSysValueBytes];
    if (!readNetAttribute(port, "duplex", mode)) return -1;
    if (std::strcmp(mode, "full") == 0) return kDuplexFull;
    if (std::strcmp(mode, "half") == 0) return kDuplexHalf;
    return -1;
}

// Rate in kb/s as Mb/s text, with one decimal when it is not whole ("5.5", "866.7").
void formatRate(uint32_t kbps, char *text, int size) {
    unsigned whole = kbps / 1000;
    unsigned tenth = kbps % 1000 / 100;
    if (tenth != 0)
        (void)std::snprintf(text, static_cast<size_t>(size), "%u.%u", whole, tenth);
    else
        (void)std::snprintf(text, static_cast<size_t>(size), "%u", whole);
}

}  // namespace

int zvtSpeedCode(long mbps) {
    switch (mbps) {
        case 10:
            return 0;
        case 100:
            return 1;
        case 1000:
            return 2;
        case 10000:
            return 4;
        case 2500:
            return 5;
        case 5000:
            return 6;
        default:
            return -1;
    }
}

int zvt_lan_LogID_get_by_if_name(const char *ifname) {
    return idOf(mibConfigCurrent().logicIds, ifname);
}

int zvt_lan_phyID_get_by_if_name(const char *ifname) {
    return idOf(mibConfigCurrent().phyIds, ifname);
}

int zvt_port_get_lan_phyID(int index) {
    if (index < 0 || index >= kLanPortCount) return -1;
    const MibConfig &config = mibConfigCurrent();
    const std::string &port = config.lanPorts[static_cast<size_t>(index)];
    return port.empty() ? -1 : idOf(config.phyIds, port.c_str());
}

namespace {

// A port's link, speed and duplex as sysfs gave them.
struct PortReading {
    std::string port;
    int64_t second = -1;  // monotonic second of the reading
    bool hasCarrier = false;
    long carrier = 0;
    bool hasSpeed = false;
    long mbps = 0;
    int duplex = -1;
};

std::array<PortReading, kLanPortCount> portReadings;

int64_t monotonicSecond() {
    timespec now{};
    return os_clock_monotonic(&now) == 0 ? now.tv_sec : -1;
}

// Discovery asks for a port's link and speed once per wired host in every cycle:
// sysfs is read at most once a second per port.
const PortReading &readPort(const char *port) {
    const int64_t second = monotonicSecond();
    PortReading *slot = &portReadings[0];
    for (PortReading &reading : portReadings) {
        if (reading.port == port) {
            slot = &reading;
            break;
        }
        if (reading.second < slot->second) slot = &reading;
    }
    if (slot->port == port && second >= 0 && slot->second == second) return *slot;
    slot->port = port;
    slot->second = second;
    slot->hasCarrier = readNetNumber(port, "carrier", slot->carrier);
    slot->hasSpeed = readNetNumber(port, "speed", slot->mbps);
    slot->duplex = duplexOf(port);
    return *slot;
}

}  // namespace

int zv_port_link_get(int phy, int *link) {
    const char *port = lanPortWithPhy(phy);
    if (!link || !port) return -1;
    const PortReading &reading = readPort(port);
    if (!reading.hasCarrier) return -1;
    *link = reading.carrier != 0 ? 1 : 0;
    return 0;
}

// Duplex is written when sysfs knows it; the result follows the speed alone.
int zv_port_speedDuplex_get(int phy, int *speed, int *duplex) {
    const char *port = lanPortWithPhy(phy);
    if (!speed || !port) return -1;
    const PortReading &reading = readPort(port);
    if (!reading.hasSpeed || zvtSpeedCode(reading.mbps) < 0) return -1;
    *speed = zvtSpeedCode(reading.mbps);
    if (duplex && reading.duplex >= 0) *duplex = reading.duplex;
    return 0;
}

int zvt_wlan_get_sta_rate(const void *station, int direction, char *text, int size) {
    if (!station || !text || size <= 0 || (direction != 0 && direction != 1)) return -1;
    wlStaInfo record;
    std::memcpy(&record, station, sizeof record);  // the caller's buffer may be unaligned
    formatRate(direction == 0 ? record.txRateKbps : record.rxRateKbps, text, size);
    return 0;
}
