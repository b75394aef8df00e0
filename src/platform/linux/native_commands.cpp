#include "platform/linux/native_commands.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_ether.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <map>
#include <vector>

#include "core/unique_fd.h"
#include "platform/linux/mib_store.h"
#include "platform/linux/neigh_dump.h"
#include "platform/linux/netlink_route.h"
#include "platform/linux/read_util.h"
#include "platform/os.h"

namespace {

constexpr size_t kMaxLineBytes = 4096;  // longer lines are never ours
constexpr size_t kMacTextBytes = 17;    // "xx:xx:xx:xx:xx:xx"
constexpr size_t kIpv4AddrBytes = 4;
constexpr size_t kIpv6AddrBytes = 16;
constexpr uint16_t kStationVlan = 1;
constexpr char kFcDumpPath[] = "/proc/fc/sw_dump/l2";
// The engine's dump of a large table is well under a megabyte.
constexpr size_t kMaxSnapshotBytes = size_t{16} << 20;
constexpr size_t kReadChunkBytes = 16384;
constexpr mode_t kSnapshotMode = 0600;  // only the daemon reads it

// ---------------------------------------------------------------- recognition

// A shape is literal text with fields: %4 IPv4 address, %6 IPv6 address, %i interface
// name, %m MAC, %p file path. Each field takes the longest run of its characters.
struct Shape {
    NativeKind kind;
    std::string_view text;
};

constexpr Shape kShapes[] = {
    {NativeKind::Ipv6NeighList, "ip -6 neigh"},
    {NativeKind::ArpDelete, "arp -d %4"},
    {NativeKind::ArpDelete, "/bin/arp -d %4"},
    {NativeKind::Ipv6NeighDelete, "/bin/ip -6 neigh del %6 dev %i"},
    {NativeKind::BridgeFdbDelete, "bridge fdb del %m dev %i vlan 1 master"},
    {NativeKind::FcSnapshot, "cat /proc/fc/sw_dump/l2 > %p"},
    {NativeKind::FcSearch, "cat %p | grep -A 1 \"%m\""},
    {NativeKind::WlanFuncoff,
     "iwpriv %i get_mib func_off | tail -n 1 | awk -F':' '{print $NF}' | sed 's/ //g'"},
};

bool isHex(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

bool isAlnum(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

// Characters that mean nothing to the shell in the middle of a word.
bool inField(char field, char c) {
    switch (field) {
        case '4':
            return (c >= '0' && c <= '9') || c == '.';
        case '6':
            return isHex(c) || c == ':' || c == '.';
        case 'i':
            return isAlnum(c) || c == '_' || c == '.' || c == '-';
        case 'm':
            return isHex(c) || c == ':';
        case 'p':
            return isAlnum(c) || (c != '\0' && std::strchr("_.,:@%+/-", c) != nullptr);
        default:
            return false;
    }
}

bool parsesAs(int family, std::string_view text) {
    char buffer[INET6_ADDRSTRLEN] = {};
    if (text.size() >= sizeof buffer) return false;
    std::memcpy(buffer, text.data(), text.size());
    uint8_t addr[kIpv6AddrBytes];
    return inet_pton(family, buffer, addr) == 1;
}

bool isMacText(std::string_view text) {
    uint8_t mac[ETH_ALEN];
    return text.size() == kMacTextBytes && parseMacText(text, mac);
}

// A word that a program would not take for an option.
bool isPlainWord(std::string_view text, size_t limit) {
    return !text.empty() && text.size() <= limit && text[0] != '-';
}

bool validField(char field, std::string_view value) {
    switch (field) {
        case '4':
            return parsesAs(AF_INET, value);
        case '6':
            return parsesAs(AF_INET6, value);
        case 'i':
            return isPlainWord(value, IF_NAMESIZE - 1);
        case 'm':
            return isMacText(value);
        case 'p':
            return isPlainWord(value, PATH_MAX - 1);
        default:
            return false;
    }
}

std::string_view &slotOf(NativeCommand &command, char field) {
    switch (field) {
        case 'i':
            return command.ifname;
        case 'm':
            return command.mac;
        case 'p':
            return command.path;
        default:
            return command.address;
    }
}

std::optional<NativeCommand> matchShape(const Shape &shape, std::string_view line) {
    NativeCommand command;
    command.kind = shape.kind;
    std::string_view pattern = shape.text;
    while (!pattern.empty()) {
        if (pattern[0] == '%') {
            const char field = pattern[1];
            size_t length = 0;
            while (length < line.size() && inField(field, line[length])) ++length;
            if (!validField(field, line.substr(0, length))) return std::nullopt;
            slotOf(command, field) = line.substr(0, length);
            line.remove_prefix(length);
            pattern.remove_prefix(2);
            continue;
        }
        if (line.empty() || line[0] != pattern[0]) return std::nullopt;
        line.remove_prefix(1);
        pattern.remove_prefix(1);
    }
    if (!line.empty()) return std::nullopt;
    return command;
}

// ---------------------------------------------------------------- neighbours

// An interface index as the daemon names it; "ifN", as `ip` prints it, once gone.
NeighDeviceName gatewayNames() {
    return [cache = std::map<int, std::string>{}](int ifindex) mutable {
        auto it = cache.find(ifindex);
        if (it != cache.end()) return it->second;
        char name[IF_NAMESIZE] = {};
        const bool known = ifindex > 0 && if_indextoname(static_cast<unsigned>(ifindex), name);
        std::string text = known ? os_gateway_ifname(name) : "if" + std::to_string(ifindex);
        return cache.emplace(ifindex, std::move(text)).first->second;
    };
}

int kernelIndexOf(std::string_view gateway) {
    return static_cast<int>(if_nametoindex(os_kernel_ifname(gateway).c_str()));
}

// Every entry of FAMILY's neighbour table; false when the dump failed.
bool dumpNeighbours(const UniqueFd &sock, uint8_t family, std::vector<NeighEntry> &entries) {
    const uint32_t sequence = nextRouteSequence();
    if (!requestNeighDump(sock, sequence, family)) return false;
    return readRouteDump(sock, [&](std::span<const uint8_t> datagram) {
        return decodeNeighMessages(datagram, family, sequence, entries);
    });
}

int deleteNeighbour(const UniqueFd &sock, uint8_t family, int ifindex, const void *addr) {
    NetlinkRequest request(RTM_DELNEIGH, 0);
    ndmsg body{};
    body.ndm_family = family;
    body.ndm_ifindex = ifindex;
    request.body(body);
    request.attribute(NDA_DST, addr, family == AF_INET ? kIpv4AddrBytes : kIpv6AddrBytes);
    return routeTransact(sock, request);
}

// An entry that is already gone has been deleted as asked.
int goneIsDone(int error) {
    return error == ENOENT ? 0 : error;
}

int errnoOr(int fallback) {
    return errno != 0 ? errno : fallback;
}

NativeResult listIpv6Neighbours() {
    UniqueFd sock = openRouteSocket();
    if (!sock.valid()) return {errnoOr(EIO), {}};
    std::vector<NeighEntry> entries;
    if (!dumpNeighbours(sock, AF_INET6, entries)) return {EIO, {}};
    return {0, formatNeighListing(entries, gatewayNames())};
}

// Like `arp -d` without a device: the address goes from every interface that has it.
int deleteIpv4Neighbours(std::string_view text) {
    in_addr addr{};
    if (inet_pton(AF_INET, std::string(text).c_str(), &addr) != 1) return EINVAL;
    UniqueFd sock = openRouteSocket();
    std::vector<NeighEntry> entries;
    if (!sock.valid() || !dumpNeighbours(sock, AF_INET, entries)) return EIO;
    int result = 0;
    for (const NeighEntry &entry : entries) {
        if (std::memcmp(entry.addr.data(), &addr, sizeof addr) != 0) continue;
        const int error = goneIsDone(deleteNeighbour(sock, AF_INET, entry.ifindex, &addr));
        if (result == 0) result = error;
    }
    return result;
}

int deleteIpv6Neighbour(std::string_view text, std::string_view ifname) {
    in6_addr addr{};
    if (inet_pton(AF_INET6, std::string(text).c_str(), &addr) != 1) return EINVAL;
    const int ifindex = kernelIndexOf(ifname);
    if (ifindex == 0) return ENODEV;
    UniqueFd sock = openRouteSocket();
    if (!sock.valid()) return EIO;
    return goneIsDone(deleteNeighbour(sock, AF_INET6, ifindex, &addr));
}

// ---------------------------------------------------------------- bridge entries

int deleteFdbEntry(const UniqueFd &sock, int port, const uint8_t *mac, bool withVlan) {
    NetlinkRequest request(RTM_DELNEIGH, 0);
    ndmsg body{};
    body.ndm_family = AF_BRIDGE;
    body.ndm_ifindex = port;
    body.ndm_flags = NTF_MASTER;
    request.body(body);
    request.attribute(NDA_LLADDR, mac, ETH_ALEN);
    if (withVlan) request.attribute(NDA_VLAN, &kStationVlan, sizeof kStationVlan);
    return routeTransact(sock, request);
}

// Whether the bridge that PORT (a kernel name) belongs to keeps its entries per VLAN;
// not when it cannot say, as on kernels built without VLAN filtering.
bool bridgeFiltersVlans(const std::string &port) {
    const std::string path = "/sys/class/net/" + port + "/master/bridge/vlan_filtering";
    UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    char value = '0';
    return fd.valid() && readUpTo(fd.get(), &value, 1) == 1 && value == '1';
}

// A bridge without VLAN filtering keeps its entries without a VLAN, and that entry is
// the one the station's "vlan 1" line means.
int deleteBridgeEntry(std::string_view macText, std::string_view ifname) {
    uint8_t mac[ETH_ALEN];
    if (!parseMacText(macText, mac)) return EINVAL;
    const std::string port = os_kernel_ifname(ifname);
    const int ifindex = static_cast<int>(if_nametoindex(port.c_str()));
    if (ifindex == 0) return ENODEV;
    UniqueFd sock = openRouteSocket();
    if (!sock.valid()) return EIO;
    int error = deleteFdbEntry(sock, ifindex, mac, true);
    if (error == ENOENT && !bridgeFiltersVlans(port))
        error = deleteFdbEntry(sock, ifindex, mac, false);
    return goneIsDone(error);
}

// ---------------------------------------------------------------- snapshot files

// The first kMaxSnapshotBytes of the file at PATH; an errno when it cannot be read.
int readBounded(const char *path, int extraFlags, std::string &text) {
    UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY | extraFlags));
    if (!fd.valid()) return errnoOr(EIO);
    char chunk[kReadChunkBytes];
    while (text.size() < kMaxSnapshotBytes) {
        const ssize_t got =
            readUpTo(fd.get(), chunk, std::min(sizeof chunk, kMaxSnapshotBytes - text.size()));
        if (got < 0) return errnoOr(EIO);
        text.append(chunk, static_cast<size_t>(got));
        if (static_cast<size_t>(got) < sizeof chunk) break;
    }
    return 0;
}

bool writeAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t put = write(fd, bytes.data(), bytes.size());
        if (put < 0 && errno == EINTR) continue;
        if (put <= 0) return false;
        bytes.remove_prefix(static_cast<size_t>(put));
    }
    return true;
}

// The snapshot lives in /tmp: a link planted there is not followed.
int copySnapshot(std::string_view path) {
    std::string text;
    if (const int error = readBounded(kFcDumpPath, 0, text)) return error;
    const std::string target(path);
    UniqueFd out(
        open(target.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, kSnapshotMode));
    if (!out.valid() || !writeAll(out.get(), text)) return errnoOr(EIO);
    return 0;
}

// Like the pipeline, a snapshot that cannot be read gives no lines, not a failure.
NativeResult searchSnapshot(std::string_view path, std::string_view mac) {
    std::string text;
    if (readBounded(std::string(path).c_str(), O_NOFOLLOW, text) != 0) return {};
    return {0, grepWithNextLine(text, mac)};
}

}  // namespace

std::optional<NativeCommand> recogniseCommand(std::string_view line) {
    if (line.ends_with('\n')) line.remove_suffix(1);  // the shell ends the command there too
    if (line.size() > kMaxLineBytes) return std::nullopt;
    for (const Shape &shape : kShapes)
        if (auto command = matchShape(shape, line)) return command;
    return std::nullopt;
}

NativeResult runNativeCommand(const NativeCommand &command) {
    switch (command.kind) {
        case NativeKind::Ipv6NeighList:
            return listIpv6Neighbours();
        case NativeKind::ArpDelete:
            return {deleteIpv4Neighbours(command.address), {}};
        case NativeKind::Ipv6NeighDelete:
            return {deleteIpv6Neighbour(command.address, command.ifname), {}};
        case NativeKind::BridgeFdbDelete:
            return {deleteBridgeEntry(command.mac, command.ifname), {}};
        case NativeKind::FcSnapshot:
            return {copySnapshot(command.path), {}};
        case NativeKind::FcSearch:
            return searchSnapshot(command.path, command.mac);
        case NativeKind::WlanFuncoff:
            return {};  // mac80211 radios have no such state: never switched off
    }
    return {EINVAL, {}};
}

bool runNativeIfKnown(const char *line, NativeResult &result) {
    if (!line) return false;
    const auto command = recogniseCommand({line, strnlen(line, kMaxLineBytes + 2)});
    if (!command || mibConfigCurrent().commands == MibCommandMode::Shell) return false;
    result = runNativeCommand(*command);
    return true;
}

void printNativeOutput(const NativeResult &result) {
    if (result.output.empty()) return;
    (void)std::fwrite(result.output.data(), 1, result.output.size(), stdout);
    (void)std::fflush(stdout);
}

std::string grepWithNextLine(std::string_view text, std::string_view pattern) {
    std::string out;
    bool previousMatched = false, previousPrinted = false, printedAny = false;
    while (!text.empty()) {
        const size_t end = std::min(text.find('\n'), text.size());
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        const bool matched = line.find(pattern) != std::string_view::npos;
        const bool printed = matched || previousMatched;
        if (printed && printedAny && !previousPrinted) out.append("--\n");
        if (printed) out.append(line).push_back('\n');
        printedAny = printedAny || printed;
        previousMatched = matched;
        previousPrinted = printed;
    }
    return out;
}
