// The bridge forwarding database of br0 for the discovery cycle. The rtnetlink dump is
// the main source; the brforward sysfs file stands in when the dump cannot be had.
// The list's nodes come from newFdbNode and go back through free_bridge_fdb. Nothing is logged:
// a bridge that cannot be read gives an empty list and the caller carries on.
#include "platform/linux/bridge_fdb.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/if_bridge.h>
#include <linux/neighbour.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "core/netlink_walk.h"
#include "core/unique_fd.h"
#include "platform/linux/netlink_route.h"
#include "platform/linux/read_util.h"
#include "platform/os.h"

static_assert(sizeof(__fdb_entry) == kBrforwardRecordBytes);

namespace {

constexpr size_t kBrforwardMaxBytes = kMaxFdbRecords * kBrforwardRecordBytes;
constexpr size_t kMaxBridgePorts = 1024;
constexpr size_t kSysPathBytes = 128;
constexpr size_t kSysValueBytes = 32;
constexpr unsigned kPortLowBits = 8;
constexpr unsigned kByteMask = 0xff;

// Hosts only: neither a group address nor the all-zero one.
bool isHostMac(const uint8_t *mac) {
    constexpr uint8_t kGroupBit = 0x01;
    return (mac[0] & kGroupBit) == 0 &&
           std::any_of(mac, mac + kFdbMacBytes, [](uint8_t b) { return b != 0; });
}

struct NeighAttributes {
    bool hasMac = false;
    bool hasMaster = false;
    uint32_t master = 0;
};

void applyAttribute(unsigned type, std::span<const uint8_t> payload, FdbRecord &record,
                    NeighAttributes &seen) {
    switch (type) {
        case NDA_LLADDR:
            if (payload.size() != kFdbMacBytes) return;
            std::memcpy(record.mac, payload.data(), kFdbMacBytes);
            seen.hasMac = true;
            return;
        case NDA_MASTER:
            if (payload.size() < sizeof(uint32_t)) return;
            seen.master = readAt<uint32_t>(payload, 0);
            seen.hasMaster = true;
            return;
        case NDA_CACHEINFO:  // ndm_updated counts USER_HZ ticks: hundredths of a second
            if (payload.size() >= sizeof(nda_cacheinfo))
                record.ageing = readAt<nda_cacheinfo>(payload, 0).ndm_updated;
            return;
        case NDA_VLAN:
            if (payload.size() >= sizeof(uint16_t)) record.vid = readAt<uint16_t>(payload, 0);
            return;
        default:
            return;
    }
}

// False when an attribute's length is impossible; the message is then dropped.
bool readNeighAttributes(std::span<const uint8_t> attrs, FdbRecord &record, NeighAttributes &seen) {
    return netlink::forEachAttribute(attrs, [&](const nlattr *attr) {
               applyAttribute(mnl_attr_get_type(attr), netlink::payloadOf(attr), record, seen);
               return true;
           }) < sizeof(nlattr);
}

void decodeNeighbour(std::span<const uint8_t> payload, int bridgeIndex,
                     std::vector<FdbRecord> &records) {
    if (payload.size() < NLMSG_ALIGN(sizeof(ndmsg)) || records.size() >= kMaxFdbRecords) return;
    const auto header = readAt<ndmsg>(payload, 0);
    if (header.ndm_family != AF_BRIDGE) return;
    if ((header.ndm_flags & NTF_SELF) && !(header.ndm_flags & NTF_MASTER)) return;  // a port's own
    FdbRecord record;
    NeighAttributes seen;
    if (!readNeighAttributes(payload.subspan(NLMSG_ALIGN(sizeof(ndmsg))), record, seen)) return;
    const long owner = seen.hasMaster ? static_cast<long>(seen.master) : header.ndm_ifindex;
    if (!seen.hasMac || owner != bridgeIndex || !isHostMac(record.mac)) return;
    record.ifindex = header.ndm_ifindex;
    record.isLocal = (header.ndm_state & NUD_PERMANENT) != 0;
    records.push_back(record);
}

}  // namespace

// A dump interrupted by a change (NLM_F_DUMP_INTR) is still taken: its entries are real,
// and the next cycle reads the table again a second later.
FdbDumpStatus decodeBridgeFdbMessages(std::span<const uint8_t> datagram, int bridgeIndex,
                                      uint32_t sequence, std::vector<FdbRecord> &records) {
    if (bridgeIndex <= 0) return FdbDumpStatus::Failed;
    return walkRouteDatagram(datagram, sequence, [&](uint16_t type, auto payload) {
        if (type == RTM_NEWNEIGH) decodeNeighbour(payload, bridgeIndex, records);
    });
}

void decodeBrforward(std::span<const uint8_t> bytes, std::vector<FdbRecord> &records) {
    for (size_t at = 0; at + kBrforwardRecordBytes <= bytes.size(); at += kBrforwardRecordBytes) {
        if (records.size() >= kMaxFdbRecords) return;
        const auto entry = readAt<__fdb_entry>(bytes, at);
        FdbRecord record;
        std::memcpy(record.mac, entry.mac_addr, kFdbMacBytes);
        if (!isHostMac(record.mac)) continue;
        record.isLocal = entry.is_local != 0;
        record.ageing = entry.ageing_timer_value;  // already in USER_HZ ticks
        record.portNo = entry.port_no | static_cast<unsigned>(entry.port_hi) << kPortLowBits;
        records.push_back(record);
    }
}

namespace {

// The list handed to the caller, built at its tail; freed here unless released.
class FdbList {
   public:
    FdbList() = default;
    FdbList(const FdbList &) = delete;
    FdbList &operator=(const FdbList &) = delete;
    ~FdbList() { free_bridge_fdb(&head_); }

    // False when no memory is left; the list stays as it was.
    bool append(const FdbRecord &record, const char *ifname, unsigned portNo) {
        fdb *node = newFdbNode();
        if (!node) return false;
        std::memcpy(node->mac, record.mac, kFdbMacBytes);
        node->port_no = static_cast<uint8_t>(portNo & kByteMask);
        node->port_hi = static_cast<uint8_t>(portNo >> kPortLowBits & kByteMask);
        node->is_local = record.isLocal ? 1 : 0;
        node->ageing_timer_value = record.ageing;
        node->vid = record.vid;
        (void)std::snprintf(node->brname, sizeof node->brname, "%s", kFdbBridgeName);
        (void)std::snprintf(node->ifname, sizeof node->ifname, "%s",
                            os_gateway_ifname(ifname).c_str());
        *tail_ = node;
        tail_ = &node->next;
        ++count_;
        return true;
    }

    int release(fdb **head) {
        *head = std::exchange(head_, nullptr);
        tail_ = &head_;
        return std::exchange(count_, 0);
    }

   private:
    fdb *head_ = nullptr;
    fdb **tail_ = &head_;
    int count_ = 0;
};

// A short sysfs value without its newline.
bool readSysValue(const char *path, char (&value)[kSysValueBytes]) {
    UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) return false;
    ssize_t got;
    do {
        got = read(fd.get(), value, sizeof value - 1);
    } while (got < 0 && errno == EINTR);
    if (got <= 0) return false;
    value[got] = '\0';
    return true;
}

// A bridge port number as sysfs writes it ("0x1"), or 0 when there is none.
unsigned readPortNumber(const char *path) {
    char value[kSysValueBytes];
    if (!readSysValue(path, value)) return 0;
    char *end = nullptr;
    errno = 0;
    const unsigned long number = std::strtoul(value, &end, 0);
    if (errno != 0 || end == value || number > UINT16_MAX) return 0;
    return static_cast<unsigned>(number);
}

struct PortName {
    char name[IF_NAMESIZE] = {};  // empty: the interface is gone
    unsigned number = 0;          // 0 for the bridge itself
};

PortName lookupPort(int ifindex) {
    PortName port;
    if (ifindex <= 0 || !if_indextoname(static_cast<unsigned>(ifindex), port.name)) return port;
    char path[kSysPathBytes];
    int n = std::snprintf(path, sizeof path, "/sys/class/net/%s/brport/port_no", port.name);
    if (n > 0 && static_cast<size_t>(n) < sizeof path) port.number = readPortNumber(path);
    return port;
}

// Names each record's port, once per port; an entry whose port has gone is left out.
void appendDumpRecords(const std::vector<FdbRecord> &records, FdbList &list) {
    std::map<int, PortName> ports;
    for (const FdbRecord &record : records) {
        auto it = ports.find(record.ifindex);
        if (it == ports.end()) it = ports.emplace(record.ifindex, lookupPort(record.ifindex)).first;
        if (it->second.name[0] == '\0') continue;
        if (!list.append(record, it->second.name, it->second.number)) return;
    }
}

// The bridge's entries from one neighbour dump; false when it could not be read whole.
bool dumpBridgeFdb(int bridgeIndex, std::vector<FdbRecord> &records) {
    const uint32_t sequence = nextRouteSequence();
    UniqueFd sock = openRouteSocket();
    if (!sock.valid() || !requestNeighDump(sock, sequence, AF_BRIDGE)) return false;
    return readRouteDump(sock, [&](std::span<const uint8_t> datagram) {
        return decodeBridgeFdbMessages(datagram, bridgeIndex, sequence, records);
    });
}

std::string kernelBridge() {
    return os_kernel_ifname(kFdbBridgeName);
}

bool readBrforward(std::vector<uint8_t> &bytes) {
    char path[kSysPathBytes];
    (void)std::snprintf(path, sizeof path, "/sys/class/net/%s/brforward", kernelBridge().c_str());
    UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) return false;
    bytes.resize(kBrforwardMaxBytes);
    size_t used = 0;
    while (used < bytes.size()) {
        const ssize_t got = read(fd.get(), bytes.data() + used, bytes.size() - used);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return false;
        if (got == 0) break;
        used += static_cast<size_t>(got);
    }
    bytes.resize(used);
    return true;
}

struct DirCloser {
    void operator()(DIR *dir) const { closedir(dir); }
};

// Port number to port name, from brif/NAME/port_no of each of the bridge's ports.
std::map<unsigned, std::string> readBridgePorts() {
    std::map<unsigned, std::string> names;
    char path[kSysPathBytes];
    const std::string bridge = kernelBridge();
    (void)std::snprintf(path, sizeof path, "/sys/class/net/%s/brif", bridge.c_str());
    std::unique_ptr<DIR, DirCloser> dir(opendir(path));
    while (dir && names.size() < kMaxBridgePorts) {
        const dirent *entry = readdir(dir.get());
        if (!entry) break;
        if (entry->d_name[0] == '.') continue;
        int n = std::snprintf(path, sizeof path, "/sys/class/net/%s/brif/%s/port_no",
                              bridge.c_str(), entry->d_name);
        if (n <= 0 || static_cast<size_t>(n) >= sizeof path) continue;
        if (unsigned number = readPortNumber(path)) names.emplace(number, entry->d_name);
    }
    return names;
}

}  // namespace

int collectBridgeFdbFromSysfs(fdb **head) {
    if (!head) return 0;
    *head = nullptr;
    std::vector<uint8_t> bytes;
    if (!readBrforward(bytes)) return 0;
    std::vector<FdbRecord> records;
    decodeBrforward(bytes, records);
    const std::map<unsigned, std::string> ports = readBridgePorts();
    FdbList list;
    for (const FdbRecord &record : records) {
        auto it = ports.find(record.portNo);
        if (it == ports.end()) continue;
        if (!list.append(record, it->second.c_str(), record.portNo)) break;
    }
    return list.release(head);
}

int collect_bridge_fdb(fdb **head) {
    if (!head) return 0;
    *head = nullptr;
    const unsigned bridgeIndex = if_nametoindex(kernelBridge().c_str());
    if (bridgeIndex == 0) return 0;
    std::vector<FdbRecord> records;
    if (!dumpBridgeFdb(static_cast<int>(bridgeIndex), records))
        return collectBridgeFdbFromSysfs(head);
    FdbList list;
    appendDumpRecords(records, list);
    return list.release(head);
}
