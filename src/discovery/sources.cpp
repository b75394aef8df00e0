#include "discovery/sources.h"

#include <arpa/inet.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "core/clock.h"
#include "core/log.h"
#include "core/node_pool.h"
#include "core/paths.h"
#include "core/text.h"
#include "core/unique_fd.h"
#include "discovery/mac_index.h"
#include "discovery/wlan_sta.h"
#include "hosts/host_table.h"
#include "platform/os.h"

namespace {

constexpr size_t kLineBufSize = 512;
constexpr size_t kMaxIgnoreTokenLen = 63;  // longer tokens filter but never remove
constexpr size_t kArpIpTextMax = 15;
constexpr size_t kMacTextMax = 17;
constexpr size_t kDeviceTextMax = 15;
constexpr size_t kIpv6TextMax = 45;
constexpr size_t kArpCommandSize = 128;
constexpr unsigned int kArpFlagComplete = 0x2;
constexpr uint32_t kLinkLocalMask = 0xffc00000u;
constexpr uint32_t kLinkLocalPrefix = 0xfe800000u;
constexpr const char *kArpFile = "/proc/net/arp";
constexpr const char *kIpv6NeighCommand = "ip -6 neigh";
constexpr std::string_view kIgnoreSeparators = " ,\r\n";

std::string ignoreList;

struct FreeDeleter {
    void operator()(void *memory) const { std::free(memory); }
};
std::unique_ptr<dhcp_lease[], FreeDeleter> leaseArray;
MacIndex<arp_entry> arpIndex;
MacIndex<ipv6_neigh> ipv6Index;
MacIndex<dhcp_lease> leaseIndex;
int leaseCount = 0;
bool leasesRead = false;  // the first refresh always reads, however young the clock
uint32_t leaseRefreshTime = 0;

// ---- words of a line, as sscanf's %s sees them ----

constexpr auto kBlank = [] {
    std::array<bool, 256> blank{};
    for (unsigned char c : {' ', '\t', '\n', '\v', '\f', '\r'}) blank[c] = true;
    return blank;
}();

bool isBlank(char c) { return kBlank[static_cast<unsigned char>(c)]; }

// A line handed over as C text ends at its first NUL, as it would for sscanf.
std::string_view untilNul(std::string_view line) {
    return line.substr(0, std::min(line.find('\0'), line.size()));
}

// The next whitespace-delimited word of REST (empty at the end); REST moves past it.
std::string_view nextWord(std::string_view &rest) {
    const char *at = rest.data();
    const char *const end = at + rest.size();
    while (at < end && isBlank(*at)) ++at;
    const char *const start = at;
    while (at < end && !isBlank(*at)) ++at;
    rest = std::string_view(at, static_cast<size_t>(end - at));
    return std::string_view(start, static_cast<size_t>(at - start));
}

// Copies the next word into OUT. A word longer than MAX is not cut: no kernel or
// `ip` field is that long, so such a line is not one of theirs and is rejected.
template <size_t N>
bool takeWord(std::string_view &rest, size_t max, char (&out)[N]) {
    static_assert(N > 0);
    std::string_view word = nextWord(rest);
    if (word.empty() || word.size() > max || word.size() >= N) return false;
    std::memcpy(out, word.data(), word.size());
    out[word.size()] = '\0';
    return true;
}

// "0x" and hexadecimal digits, the whole word; VALUE may be null to skip it.
bool takeHex(std::string_view &rest, unsigned int *value) {
    std::string_view word = nextWord(rest);
    if (word.size() < 3 || word.substr(0, 2) != "0x") return false;
    unsigned int parsed = 0;
    const char *end = word.data() + word.size();
    auto [ptr, ec] = std::from_chars(word.data() + 2, end, parsed, 16);
    if (ec != std::errc() || ptr != end) return false;
    if (value) *value = parsed;
    return true;
}

bool skipWord(std::string_view &rest) { return !nextWord(rest).empty(); }

// ---- ignore list ----

// The first line of STREAM as read, or nothing for an empty file.
bool readFirstLine(FILE *stream, std::string &line) {
    char *raw = nullptr;
    size_t capacity = 0;
    ssize_t length = ::getline(&raw, &capacity, stream);
    std::unique_ptr<char, FreeDeleter> owner(raw);
    if (length <= 0) return false;
    line.assign(raw, static_cast<size_t>(length));
    return true;
}

// Calls VISIT with every token of the list, empty ones included.
template <typename Visit>
void forEachIgnoreToken(std::string_view list, Visit visit) {
    while (true) {
        size_t end = list.find_first_of(kIgnoreSeparators);
        visit(list.substr(0, end));
        if (end == std::string_view::npos) return;
        list.remove_prefix(end + 1);
    }
}

void removeIgnoredHosts() {
    forEachIgnoreToken(ignoreList, [](std::string_view token) {
        if (token.empty() || token.size() > kMaxIgnoreTokenLen) return;
        char name[kMaxIgnoreTokenLen + 1];
        std::memcpy(name, token.data(), token.size());
        name[token.size()] = '\0';
        HX_DBG(DBG_FREE_LIST, "[%s] ignore %s\n", "read_ignore_ifnames", name);
        RemoveHostrixByIfname(name);
    });
}

bool endsIgnoredName(char c) {
    return c == '\0' || c == '.' || kIgnoreSeparators.find(c) != std::string_view::npos;
}

bool matchesIgnoreToken(std::string_view name, std::string_view token) {
    if (token.empty() || name.substr(0, token.size()) != token) return false;
    return name.size() == token.size() || endsIgnoredName(name[token.size()]);
}

bool startsWith(const char *text, std::string_view prefix) {
    return std::strncmp(text, prefix.data(), prefix.size()) == 0;
}

// ---- lists ----

// A full LAN's worth of each: the kernel's neighbour tables hold a few hundred entries.
NodePool<arp_entry, 512> arpNodes;
NodePool<ipv6_neigh, 512> ipv6Nodes;

arp_entry *arpNodeOf(const ArpLine &line) {
    arp_entry *node = arpNodes.take();
    if (!node) return nullptr;
    convertMacFormat(line.mac, node->mac);  // a bad text leaves the MAC as it produced
    uint32_t ip = 0;
    if (inet_pton(AF_INET, line.ip, &ip) == 1) node->ip = ip;
    copyText(node->ifname, std::min(sizeof node->ifname, kSourceIfnameLen + 1), line.device);
    node->complete = (line.flags & kArpFlagComplete) ? 1 : 0;
    return node;
}

// The neighbour's MAC when LINE is a br0 entry with a link-layer address.
bool acceptedNeigh(const char (&line)[kLineBufSize], Ipv6NeighLine &parsed, uint8_t *mac) {
    if (line[0] == '\0' || line[0] == '\n' || !isPrintableString(line)) return false;
    if (!parseIpv6NeighLine({line, sizeof line}, parsed)) return false;
    return startsWith(parsed.device, "br0") && convertMacFormat(parsed.lladdr, mac) == 1;
}

void replaceLease(dhcp_lease *array, int count) {
    leaseArray.reset(count > 0 ? array : nullptr);
    if (count <= 0) std::free(array);
    leaseCount = count > 0 ? count : 0;
    leaseIndex.reset(leaseArray.get());
    for (int i = 0; i < leaseCount; ++i) leaseIndex.add(&leaseArray[i]);
}

void indexArpNode(arp_entry *node) {
    node->sameMacNext = nullptr;
    if (arp_entry *previous = arpIndex.add(node)) previous->sameMacNext = node;
}

}  // namespace

// ---------------------------------------------------------------- ignore list

int read_ignore_ifnames() {
    ignoreList.clear();
    UniqueFile file(std::fopen(hostrixPath(HostrixFile::IgnoreIfnames), "r"));
    if (!file) return -1;
    struct stat status {};
    if (fstat(fileno(file.get()), &status) != 0) return 0;
    if (!readFirstLine(file.get(), ignoreList)) {
        ignoreList.clear();
        std::string_view path = hostrixBasePath(HostrixFile::IgnoreIfnames);
        HX_DBG(DBG_FREE_LIST, "[%s] LANHOST_IGNORE_LANLIST: %.*s is empty\n", __func__,
               static_cast<int>(path.size()), path.data());
    }
    HX_DBG(DBG_FREE_LIST, "[%s] ignore_list %s\n", __func__, ignoreList.c_str());
    removeIgnoredHosts();
    return 0;
}

int is_ignore_ifname(const char *name) {
    if (!name || !(startsWith(name, "eth") || startsWith(name, "wlan"))) return 1;
    if (startsWith(name, "wlan0-vxd") || startsWith(name, "wlan1-vxd")) return 1;
    int ignored = 0;
    std::string_view text(name);
    forEachIgnoreToken(ignoreList, [&](std::string_view token) {
        if (matchesIgnoreToken(text, token)) ignored = 1;
    });
    return ignored;
}

std::string_view ignoreIfnameList() { return ignoreList; }

// ---------------------------------------------------------------- ARP table

// "%s 0x%*x 0x%x %s %*s %s": address, type, flags, hardware address, mask, device.
bool parseArpLine(std::string_view line, ArpLine &out) {
    std::string_view rest = untilNul(line);
    return takeWord(rest, kArpIpTextMax, out.ip) && takeHex(rest, nullptr) &&
           takeHex(rest, &out.flags) && takeWord(rest, kMacTextMax, out.mac) &&
           skipWord(rest) && takeWord(rest, kDeviceTextMax, out.device);
}

int collect_arp_entries(arp_entry **head) {
    UniqueFile file(os_open_kernel_file(kArpFile));
    if (!file) return 0;
    char line[kLineBufSize];
    if (!std::fgets(line, sizeof line, file.get())) return 0;  // the header
    int count = 0;
    arp_entry **tail = head;
    arpIndex.reset(*head);
    for (; *tail; tail = &(*tail)->next) indexArpNode(*tail);
    while (std::fgets(line, sizeof line, file.get())) {
        ArpLine parsed{};
        // The whole buffer: the parser stops at fgets' NUL, so the line is scanned once.
        if (!parseArpLine({line, sizeof line}, parsed) || !startsWith(parsed.device, "br"))
            continue;
        arp_entry *node = arpNodeOf(parsed);
        if (!node) continue;
        *tail = node;
        tail = &node->next;
        indexArpNode(node);
        ++count;
    }
    arpIndex.retarget(*head);
    return count;
}

arp_entry *find_arp_entry(arp_entry *start, const uint8_t *mac) {
    for (arp_entry *node = start; node; node = node->next)
        if (std::memcmp(node->mac, mac, sizeof node->mac) == 0) return node;
    return nullptr;
}

void free_arp_entries(arp_entry **head) {
    if (head && *head) arpIndex.clear();
    arpNodes.giveList(head);
}

arp_entry *firstArpEntry(arp_entry *list, const uint8_t *mac) {
    arp_entry *first = nullptr;
    return arpIndex.lookup(list, mac, first) ? first : find_arp_entry(list, mac);
}

arp_entry *nextArpEntryOfMac(arp_entry *list, arp_entry *node) {
    arp_entry *first = nullptr;
    return arpIndex.lookup(list, node->mac, first) ? node->sameMacNext
                                                   : find_arp_entry(node->next, node->mac);
}

// ---------------------------------------------------------------- IPv6 neighbours

// "%45s %*s %15s %*s %17s %*s": address, "dev", device, "lladdr", link-layer address.
bool parseIpv6NeighLine(std::string_view line, Ipv6NeighLine &out) {
    std::string_view rest = untilNul(line);
    return takeWord(rest, kIpv6TextMax, out.addr) && skipWord(rest) &&
           takeWord(rest, kDeviceTextMax, out.device) && skipWord(rest) &&
           takeWord(rest, kMacTextMax, out.lladdr);
}

int collect_ipv6_neigh(ipv6_neigh **head) {
    UniquePipe pipe(os_popen_read(kIpv6NeighCommand));
    if (!pipe) return 0;
    char line[kLineBufSize];
    ipv6Index.reset(*head);
    for (ipv6_neigh *node = *head; node; node = node->next) ipv6Index.add(node);
    while (std::fgets(line, sizeof line, pipe.get())) {
        Ipv6NeighLine parsed{};
        uint8_t mac[6];
        if (acceptedNeigh(line, parsed, mac)) *head = update_ipv6_neigh(mac, parsed.addr, *head);
    }
    int count = 0;
    for (ipv6_neigh *node = *head; node; node = node->next) ++count;
    return count;
}

bool isLinkLocalIpv6(const uint8_t *addr) {
    uint32_t first = (uint32_t{addr[0]} << 24) | (uint32_t{addr[1]} << 16) |
                     (uint32_t{addr[2]} << 8) | uint32_t{addr[3]};
    return (first & kLinkLocalMask) == kLinkLocalPrefix;
}

ipv6_neigh *update_ipv6_neigh(const uint8_t *mac, const char *text, ipv6_neigh *head) {
    uint8_t addr[kIpv6AddrLen] = {};
    if (inet_pton(AF_INET6, text, addr) != 1) std::memset(addr, 0, sizeof addr);
    ipv6_neigh *node = nullptr;
    const bool indexed = ipv6Index.lookup(head, mac, node);
    if (!indexed) node = find_ipv6_neigh(head, mac);
    if (node) {
        bool empty = isZeroIpv6(node->addr);
        if (!empty) HX_DBG(DBG_TRACE, "[%s %d]: %s\n", __func__, __LINE__, text);
        if (empty || isLinkLocalIpv6(node->addr)) {
            std::memcpy(node->addr, addr, sizeof addr);
            HX_DBG(DBG_TRACE, "[%s %d]: update with ip %s\n", __func__, __LINE__, text);
        }
        return head;
    }
    node = ipv6Nodes.take();
    if (!node) return head;
    std::memcpy(node->mac, mac, sizeof node->mac);
    std::memcpy(node->addr, addr, sizeof addr);
    HX_DBG(DBG_TRACE, "[%s %d]: update with ip %s\n", __func__, __LINE__, text);
    node->next = head;
    if (indexed) {
        ipv6Index.add(node);
        ipv6Index.retarget(node);
    }
    return node;
}

ipv6_neigh *findIpv6Neigh(ipv6_neigh *list, const uint8_t *mac) {
    ipv6_neigh *node = nullptr;
    return ipv6Index.lookup(list, mac, node) ? node : find_ipv6_neigh(list, mac);
}

ipv6_neigh *find_ipv6_neigh(ipv6_neigh *head, const uint8_t *mac) {
    for (ipv6_neigh *node = head; node; node = node->next)
        if (std::memcmp(node->mac, mac, sizeof node->mac) == 0) return node;
    return nullptr;
}

void free_ipv6_neigh(ipv6_neigh **head) {
    if (head && *head) ipv6Index.clear();
    ipv6Nodes.giveList(head);
}

// ---------------------------------------------------------------- lease snapshot

int refresh_dhcp_leases() {
    bool clockOk = false;
    auto now = static_cast<uint32_t>(monotonicSeconds(&clockOk));
    // Stored as 32-bit seconds: a clock that went back (or wrapped) counts as elapsed.
    // An unreadable clock re-reads rather than keep a snapshot of unknown age. A
    // database that changed is read at once rather than up to 5 s later, so that a
    // host is reported in the first cycle after it took its lease.
    if (leasesRead && clockOk && now - leaseRefreshTime < kLeaseRefreshSec &&
        !isDhcpClientLeasesDBChanged())
        return leaseCount;
    dhcp_lease *array = nullptr;
    unsigned long unused = 0;
    int count = getDhcpClientLeasesDB(&array, &unused);
    replaceLease(array, count);
    leasesRead = true;
    leaseRefreshTime = now;
    return leaseCount;
}

dhcp_lease *dhcpLeaseSnapshot() { return leaseArray.get(); }

int dhcpLeaseCount() { return leaseCount; }

dhcp_lease *findDhcpLease(const uint8_t *mac) {
    dhcp_lease *lease = nullptr;
    if (!leaseIndex.lookup(leaseArray.get(), mac, lease))
        getDhcpClientInfo(leaseArray.get(), leaseCount, mac, &lease);
    return lease;
}

// ---------------------------------------------------------------- the rest

int is_wifi_station(const uint8_t *mac) {
    for (const wlanStaSlot &slot : wlanStaTable)
        for (uint32_t i = 0; i < slot.staNum; ++i)
            if (std::memcmp(slot.staList[i].mac, mac, sizeof slot.staList[i].mac) == 0) return 1;
    return 0;
}

int del_arp_entry(uint32_t ip) {
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &ip, text, sizeof text);
    char command[kArpCommandSize];
    std::snprintf(command, sizeof command, "/bin/arp -d %s\n", text);
    return os_system(command);
}

void resetDiscoverySources() {
    ignoreList.clear();
    leaseArray.reset();
    leaseCount = 0;
    leasesRead = false;
    leaseRefreshTime = 0;
    leaseIndex.clear();
}
