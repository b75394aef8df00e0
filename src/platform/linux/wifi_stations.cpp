// Wi-Fi stations of one interface, from nl80211 or from the station directory, and
// the wireless mode of one station.
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
#include "platform/linux/read_util.h"
#include "platform/linux/nl80211.h"
#include "platform/zvt.h"

namespace {

constexpr size_t kMacBytes = 6;
constexpr long kSignalOffset = 100;   // the record keeps dBm + 100
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

int readStations(const char *ifname, std::span<wlStaInfo> out) {
    if (!ifname || !mibValidIfName(ifname)) return -1;
    const MibConfig &config = mibConfigCurrent();
    switch (config.stations) {
        case MibStationSource::Nl80211:
            return nl80211ReadStations(ifname, out);
        case MibStationSource::Directory:
            return readStationFile(config.stationDir, ifname, out);
    }
    return -1;
}

}  // namespace

// Records go to positions 1..64 of the caller's zeroed buffer; the daemon skips 0.
int getWlStaInfo(const char *ifname, void *buffer) {
    if (!buffer) return -1;
    StationArray stations{};
    int count = readStations(ifname, stations);
    auto *records = static_cast<unsigned char *>(buffer);
    for (int i = 0; i < count; ++i)
        std::memcpy(records + static_cast<size_t>(i + 1) * kWlStaInfoSize, &stations[i],
                    kWlStaInfoSize);
    return count;
}

int zvt_wlan_get_sta_wireless_mode(const char *ifname, const unsigned char *mac, int, char *text) {
    if (!text) return 0;
    text[0] = '\0';
    StationArray stations{};
    int count = mac ? readStations(ifname, stations) : -1;
    for (int i = 0; i < count; ++i) {
        const wlStaInfo &station = stations[i];
        if (std::memcmp(station.mac, mac, kMacBytes) != 0) continue;
        size_t length = strnlen(station.mode, kMaxStationModeChars);
        std::memcpy(text, station.mode, length);
        text[length] = '\0';
        break;
    }
    return 0;
}
