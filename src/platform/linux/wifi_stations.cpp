// Wi-Fi stations of one interface, from nl80211 or from the station directory, and
// what the last read of each interface leaves for the per-host questions: the
// wireless mode of one station and the interface's SSID.
#include "platform/linux/wifi_stations.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdio>
#include <cstring>

#include "core/unique_fd.h"
#include "platform/linux/mib_store.h"
#include "platform/linux/nl80211.h"
#include "platform/linux/read_util.h"
#include "platform/linux/wifi_cache.h"
#include "platform/os.h"
#include "platform/zvt.h"

namespace {

constexpr long kSignalOffset = 100;  // the record keeps dBm + 100
constexpr uint32_t kKbpsPerMbps = 1000;
constexpr size_t kRateDecimals = 3;  // kb/s resolution; further digits are dropped

using StationArray = std::array<wlStaInfo, kMaxStationsPerInterface>;

template <typename T>
bool parseWhole(std::string_view text, T &value) {
    const char *end = text.data() + text.size();
    auto [stop, error] = std::from_chars(text.data(), end, value);
    return !text.empty() && error == std::errc() && stop == end;
}

bool allDigits(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// Mb/s as "866" or "5.5" into kb/s; false when it is no such number or too large.
bool parseRate(std::string_view text, uint32_t &kbps) {
    size_t dot = std::min(text.find('.'), text.size());
    std::string_view fraction = text.substr(std::min(dot + 1, text.size()));
    uint32_t mbps = 0;
    if (!parseWhole(text.substr(0, dot), mbps) || mbps > UINT32_MAX / kKbpsPerMbps) return false;
    if (dot < text.size() && (fraction.empty() || !allDigits(fraction))) return false;
    uint32_t thousandths = 0;
    for (size_t i = 0; i < kRateDecimals; ++i)
        thousandths = thousandths * 10 + (i < fraction.size() ? fraction[i] - '0' : 0);
    uint64_t total = uint64_t{mbps} * kKbpsPerMbps + thousandths;
    kbps = static_cast<uint32_t>(std::min<uint64_t>(total, UINT32_MAX));
    return true;
}

bool parseMode(std::string_view text, char (&mode)[sizeof wlStaInfo::mode]) {
    bool printable =
        std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c < 0x7f; });
    if (text.empty() || text.size() > kMaxStationModeChars || !printable) return false;
    std::memcpy(mode, text.data(), text.size());
    mode[text.size()] = '\0';
    return true;
}

}  // namespace

uint8_t stationSignalByte(long dbm) {
    long value = dbm > LONG_MAX - kSignalOffset ? LONG_MAX : dbm + kSignalOffset;
    return static_cast<uint8_t>(std::clamp<long>(value, 0, UINT8_MAX));
}

bool parseStationLine(std::string_view line, wlStaInfo &out) {
    std::string_view macText = nextToken(line), signalText = nextToken(line);
    std::string_view rxText = nextToken(line), txText = nextToken(line);
    std::string_view modeText = nextToken(line);
    wlStaInfo station{};
    long dbm = 0;
    uint32_t rxKbps = 0, txKbps = 0;  // the record's own fields are unaligned
    if (!nextToken(line).empty() || !parseMacText(macText, station.mac) ||
        !parseWhole(signalText, dbm) || !parseRate(rxText, rxKbps) || !parseRate(txText, txKbps) ||
        !parseMode(modeText, station.mode))
        return false;
    station.rxRateKbps = rxKbps;
    station.txRateKbps = txKbps;
    station.inUse = 1;
    station.flags = kStaAssociated;
    station.signal = stationSignalByte(dbm);
    out = station;
    return true;
}

size_t parseStationFile(std::string_view text, std::span<wlStaInfo> out) {
    size_t count = 0;
    while (!text.empty() && count < out.size()) {
        size_t end = std::min(text.find('\n'), text.size());
        if (parseStationLine(text.substr(0, end), out[count])) ++count;
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return count;
}

namespace {

// DIR/IFNAME's stations; -1 when the file is missing or unreadable.
int readStationFile(const std::string &dir, const char *ifname, std::span<wlStaInfo> out) {
    char path[PATH_MAX];
    int n = std::snprintf(path, sizeof path, "%s/%s", dir.c_str(), ifname);
    if (n < 0 || static_cast<size_t>(n) >= sizeof path) return -1;
    UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    struct stat st {};
    if (!fd.valid() || fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return -1;
    std::array<char, kMaxStationFileBytes> text;
    ssize_t got = readUpTo(fd.get(), text.data(), text.size());
    if (got < 0) return -1;
    std::string_view whole(text.data(), static_cast<size_t>(got));
    if (whole.size() == text.size()) whole = whole.substr(0, whole.rfind('\n') + 1);  // cut line
    return static_cast<int>(parseStationFile(whole, out));
}

// Main thread only, like every caller of the store.
WifiCache &cache() {
    static WifiCache instance;
    return instance;
}

int64_t nowMs() {
    timespec now{};
    if (os_clock_monotonic(&now) != 0) return 0;
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

bool validName(const char *ifname) {
    return ifname && mibValidIfName(ifname);
}

// The interface's SSID comes with its stations: one question to the kernel serves
// both the modes (its band) and this cycle's SSID lookups.
int readRadio(const char *ifname, std::span<wlStaInfo> out) {
    Nl80211Interface iface;
    int count = nl80211ReadStations(os_kernel_ifname(ifname).c_str(), iface, out);
    cache().putSsid(ifname, iface.ssid, nowMs());
    return count;
}

int readStations(const char *ifname, std::span<wlStaInfo> out) {
    const MibConfig &config = mibConfigCurrent();
    switch (config.stations) {
        case MibStationSource::Nl80211:
            return readRadio(ifname, out);
        case MibStationSource::Directory:  // the lab names its files as the daemon does
            return readStationFile(config.stationDir, ifname, out);
    }
    return -1;
}

}  // namespace

bool wifiInterfaceSsid(const char *ifname, std::string_view &ssid) {
    if (!validName(ifname)) return false;
    int64_t now = nowMs();
    std::optional<std::string_view> known = cache().ssidOf(ifname, now);
    if (!known) {
        Nl80211Interface iface;  // stays empty when the kernel cannot say
        (void)nl80211ReadInterface(os_kernel_ifname(ifname).c_str(), iface);
        cache().putSsid(ifname, iface.ssid, now);
        known = cache().ssidOf(ifname, now);
    }
    if (!known || known->empty()) return false;
    ssid = *known;
    return true;
}

// Records go to positions 1..64 of the caller's zeroed buffer; the daemon skips 0.
// The read replaces what the interface's last one left in the cache.
int getWlStaInfo(const char *ifname, void *buffer) {
    if (!buffer || !validName(ifname)) return -1;
    StationArray stations{};
    int count = readStations(ifname, stations);
    auto taken = std::span(stations).first(static_cast<size_t>(std::max(count, 0)));
    cache().putStations(ifname, taken, nowMs());
    auto *records = static_cast<unsigned char *>(buffer);
    for (size_t i = 0; i < taken.size(); ++i)
        std::memcpy(records + (i + 1) * kWlStaInfoSize, &taken[i], kWlStaInfoSize);
    return count;
}

// Answered from the interface's read of this cycle, never from the driver again.
int zvt_wlan_get_sta_wireless_mode(const char *ifname, const unsigned char *mac, int, char *text) {
    if (!text) return 0;
    text[0] = '\0';
    if (!ifname || !mac) return 0;
    std::optional<std::string_view> mode = cache().modeOf(ifname, mac);
    if (!mode) return 0;
    size_t length = std::min(mode->size(), kMaxStationModeChars);
    std::memcpy(text, mode->data(), length);
    text[length] = '\0';
    return 0;
}
