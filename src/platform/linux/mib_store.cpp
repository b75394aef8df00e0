// Loading the configuration file, noticing changes to it, and the store's operations
// on it: settings, chain records, WLAN records and the interface-name tables.
#include "platform/linux/mib_store.h"

#include "platform/linux/ifnames.h"
#include "platform/linux/read_util.h"
#include "platform/linux/wifi_stations.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>

#include "core/paths.h"
#include "core/unique_fd.h"
#include "platform/mib.h"
#include "platform/os.h"

namespace {

constexpr size_t kMaxConfigBytes = size_t{64} * 1024;
constexpr size_t kNameSlot = kMibMaxIfNameBytes + 1;
static_assert(kWlanConfigSsidOffset + kMibMaxSsidBytes < kWlanConfigSize);  // room for the NUL

struct Store {
    bool loaded = false;
    std::string path;
    FileStamp stamp;
    int64_t checkedSecond = -1;  // monotonic second of the last stat, -1: check at once
    MibConfig config;
    std::vector<int> widthReported;  // settings reported as too wide since the load
};

Store &store() {
    static Store instance;
    return instance;
}

// The tables' own storage; ELANRIF and WLANIF point into it once a file is loaded.
char lanNames[kLanPortCount][kNameSlot];
char wlanNames[kWlanRootCount][kNameSlot];

bool isAbsent(int error) {
    return error == ENOENT || error == ENOTDIR;
}

void report(const char *path, const char *what) {
    (void)std::fprintf(stderr, "hostrix: %s: %s (using defaults)\n", path, what);
}

// Keeps whole lines only when the file is larger than we read.
void clipOversized(const char *path, std::string &text) {
    if (text.size() <= kMaxConfigBytes) return;
    text.resize(kMaxConfigBytes);
    size_t lastNewline = text.rfind('\n');
    text.resize(lastNewline == std::string::npos ? 0 : lastNewline + 1);
    (void)std::fprintf(stderr, "hostrix: %s: larger than %zu bytes, the rest is ignored\n", path,
                       kMaxConfigBytes);
}

// The file's text, or false (reported unless the file is just absent).
bool readConfigFile(const char *path, std::string &text, FileStamp &stamp) {
    UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    struct stat st {};
    if (!fd.valid() || fstat(fd.get(), &st) != 0) {
        if (!isAbsent(errno)) report(path, std::strerror(errno));
        return false;
    }
    stamp = fileStampOf(st);
    if (!S_ISREG(st.st_mode)) {
        report(path, "not a regular file");
        return false;
    }
    text.resize(kMaxConfigBytes + 1);
    ssize_t got = readUpTo(fd.get(), text.data(), text.size());
    if (got < 0) {
        report(path, std::strerror(errno));
        return false;
    }
    text.resize(static_cast<size_t>(got));
    clipOversized(path, text);
    return true;
}

void publishName(const std::string &name, char *slot, const char *&entry) {
    if (name.empty()) {
        entry = kMibNoInterface;
        return;
    }
    size_t length = std::min(name.size(), kNameSlot - 1);
    std::memcpy(slot, name.data(), length);
    slot[length] = '\0';
    entry = slot;
}

void publishNames(const MibConfig &config) {
    for (int i = 0; i < kLanPortCount; ++i)
        publishName(config.lanPorts[i], lanNames[i], ELANRIF[i]);
    for (int i = 0; i < kWlanRootCount; ++i)
        publishName(config.wlanRoots[i], wlanNames[i], WLANIF[i]);
}

void load(Store &s, const char *path, FileStamp stamp) {
    MibConfig fresh;
    std::string text;
    if (stamp.error == 0 && readConfigFile(path, text, stamp)) {
        parseMibConfig(text, fresh, [path](unsigned line, std::string_view reason) {
            (void)std::fprintf(stderr, "hostrix: %s:%u: %.*s (line skipped)\n", path, line,
                               static_cast<int>(reason.size()), reason.data());
        });
    } else if (stamp.error != 0 && !isAbsent(stamp.error)) {
        report(path, std::strerror(stamp.error));
    }
    s.config = std::move(fresh);
    s.path = path;
    s.stamp = stamp;
    s.widthReported.clear();
    s.loaded = true;
    publishNames(s.config);
    ifnamesPublish(s.config.ifnames);
}

int64_t monotonicSecond() {
    timespec now{};
    return os_clock_monotonic(&now) == 0 ? now.tv_sec : -1;
}

// Every settings read comes here, many times per host in each discovery cycle: the
// file is checked at most once a second, and at once after mib_refresh.
void refresh() {
    Store &s = store();
    try {
        const char *path = hostrixPath(HostrixFile::Config);
        const int64_t second = monotonicSecond();
        if (s.loaded && s.path == path && second >= 0 && second == s.checkedSecond) return;
        s.checkedSecond = second;
        FileStamp now = statFileStamp(path);
        if (s.loaded && s.path == path && s.stamp == now) return;
        load(s, path, now);
    } catch (const std::exception &e) {
        (void)std::fprintf(stderr, "hostrix: reading settings: %s (previous settings kept)\n",
                           e.what());
    }
}

// A value wider than the caller's buffer is reported once per load.
void reportTooWide(int id, uint32_t value) {
    Store &s = store();
    if (std::find(s.widthReported.begin(), s.widthReported.end(), id) != s.widthReported.end())
        return;
    (void)std::fprintf(stderr, "hostrix: %s: setting %d = %u does not fit in 1 byte (not used)\n",
                       s.path.c_str(), id, value);
    try {
        s.widthReported.push_back(id);
    } catch (const std::exception &) {
        // Only the repeat of the message is at stake.
    }
}

void layOutChainRow(const MibChainRow &row, unsigned char *record) {
    std::memset(record, 0, kChainRecordSize);
    record[kChainEnableOffset] = row.enable;
    record[kChainModeOffset] = row.mode;
    const unsigned char ports[4] = {
        static_cast<unsigned char>(row.ports), static_cast<unsigned char>(row.ports >> 8),
        static_cast<unsigned char>(row.ports >> 16), static_cast<unsigned char>(row.ports >> 24)};
    std::memcpy(record + kChainPortMaskOffset, ports, sizeof ports);  // little-endian, unaligned
}

}  // namespace

const char *ELANRIF[kLanPortCount + 1] = {kMibDefaultLanPorts[0], kMibDefaultLanPorts[1],
                                          kMibDefaultLanPorts[2], kMibDefaultLanPorts[3], nullptr};
const char *WLANIF[kWlanRootCount + 1] = {kMibDefaultWlanRoots[0], kMibDefaultWlanRoots[1],
                                          nullptr};

const MibConfig &mibConfigCurrent() {
    refresh();
    return store().config;
}

void mibConfigReset() {
    store().loaded = false;
}

void mib_refresh() {
    store().checkedSecond = -1;
}

int mib_get_s(int id, void *buffer, int width) {
    if (!buffer || (width != 1 && width != 4)) return 0;
    const MibConfig &config = mibConfigCurrent();
    auto it = config.settings.find(id);
    if (it == config.settings.end()) return 0;
    uint32_t value = it->second;
    if (width == 1 && value > UINT8_MAX) {
        reportTooWide(id, value);
        return 0;
    }
    if (width == 1) *static_cast<uint8_t *>(buffer) = static_cast<uint8_t>(value);
    if (width == 4) std::memcpy(buffer, &value, sizeof value);
    return 1;
}

int mib_chain_total(int chain) {
    if (chain != kChainWanConnections) return 0;
    return static_cast<int>(mibConfigCurrent().wanConnections.size());
}

int mib_chain_get(int chain, unsigned int index, void *buffer) {
    if (chain != kChainWanConnections || !buffer) return 0;
    const std::vector<MibChainRow> &rows = mibConfigCurrent().wanConnections;
    if (index >= rows.size()) return 0;
    layOutChainRow(rows[index], static_cast<unsigned char *>(buffer));
    return 1;
}

// An ssid.IF line wins over what the radio says; without either there is no record.
int mib_chain_get_wlan(const char *ifname, void *record, int *index) {
    if (!ifname || !record) return -1;
    const MibConfig &config = mibConfigCurrent();
    auto it = config.ssids.find(std::string_view(ifname));
    std::string_view ssid;
    if (it != config.ssids.end())
        ssid = it->second;
    else if (!wifiInterfaceSsid(ifname, ssid))
        return -1;
    auto *bytes = static_cast<char *>(record);
    std::memset(bytes, 0, kWlanConfigSize);  // which also ends the SSID text
    std::memcpy(bytes + kWlanConfigSsidOffset, ssid.data(),
                std::min(ssid.size(), kMibMaxSsidBytes));
    if (index) *index = 0;
    return 0;
}
