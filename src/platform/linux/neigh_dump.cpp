#include "platform/linux/neigh_dump.h"

#include <arpa/inet.h>
#include <linux/neighbour.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "core/netlink_walk.h"

namespace {

constexpr size_t kIpv4AddrBytes = 4;
constexpr size_t kHexByteText = 4;   // ":xx" and the terminator
constexpr size_t kHexStateText = 9;  // up to 32 bits and the terminator

struct Name {
    unsigned bit;
    const char *text;
};

// In the order `ip` prints them.
constexpr Name kFlagNames[] = {{NTF_ROUTER, "router"},
                               {NTF_PROXY, "proxy"},
                               {NTF_EXT_LEARNED, "extern_learn"},
                               {NTF_OFFLOADED, "offload"}};
constexpr Name kStateNames[] = {{NUD_INCOMPLETE, "INCOMPLETE"}, {NUD_REACHABLE, "REACHABLE"},
                                {NUD_STALE, "STALE"},           {NUD_DELAY, "DELAY"},
                                {NUD_PROBE, "PROBE"},           {NUD_FAILED, "FAILED"},
                                {NUD_NOARP, "NOARP"},           {NUD_PERMANENT, "PERMANENT"}};
// The protocol numbers the kernel itself defines; others are printed as numbers.
constexpr const char *kProtocolNames[] = {"unspec", "redirect", "kernel", "boot", "static"};

size_t addrBytesOf(uint8_t family) {
    return family == AF_INET ? kIpv4AddrBytes : kNeighAddrBytes;
}

// False when the attribute cannot be what its type says; the entry is then dropped.
bool applyAttribute(unsigned type, std::span<const uint8_t> payload, NeighEntry &entry,
                    bool &hasAddr) {
    switch (type) {
        case NDA_DST:
            if (payload.size() != addrBytesOf(entry.family)) return false;
            std::memcpy(entry.addr.data(), payload.data(), payload.size());
            hasAddr = true;
            return true;
        case NDA_LLADDR:
            if (payload.size() > kMaxLinkAddrBytes) return false;
            std::memcpy(entry.linkAddr.data(), payload.data(), payload.size());
            entry.linkAddrLength = payload.size();
            return true;
        case NDA_PROTOCOL:
            if (payload.empty()) return false;
            entry.protocol = payload[0];
            return true;
        default:
            return true;
    }
}

bool readAttributes(std::span<const uint8_t> attrs, NeighEntry &entry, bool &hasAddr) {
    bool good = true;
    const size_t left = netlink::forEachAttribute(attrs, [&](const nlattr *attr) {
        good = applyAttribute(mnl_attr_get_type(attr), netlink::payloadOf(attr), entry, hasAddr);
        return good;
    });
    return good && left < sizeof(nlattr);
}

void decodeNeighbour(std::span<const uint8_t> payload, uint8_t family,
                     std::vector<NeighEntry> &entries) {
    if (payload.size() < NLMSG_ALIGN(sizeof(ndmsg)) || entries.size() >= kMaxNeighEntries) return;
    ndmsg header;
    std::memcpy(&header, payload.data(), sizeof header);
    if (header.ndm_family != family) return;
    NeighEntry entry;
    entry.family = family;
    entry.ifindex = header.ndm_ifindex;
    entry.state = header.ndm_state;
    entry.flags = header.ndm_flags;
    bool hasAddr = false;
    if (readAttributes(payload.subspan(NLMSG_ALIGN(sizeof(ndmsg))), entry, hasAddr) && hasAddr)
        entries.push_back(entry);
}

void appendWord(std::string &line, std::string_view word) {
    line.append(word);
    line.push_back(' ');
}

void appendLinkAddr(std::string &line, const NeighEntry &entry) {
    line.append("lladdr ");
    for (size_t i = 0; i < entry.linkAddrLength; ++i) {
        char hex[kHexByteText];
        (void)std::snprintf(hex, sizeof hex, i ? ":%02x" : "%02x", entry.linkAddr[i]);
        line.append(hex);
    }
    line.push_back(' ');
}

void appendState(std::string &line, unsigned state) {
    for (const Name &name : kStateNames) {
        if (!(state & name.bit)) continue;
        appendWord(line, name.text);
        state &= ~name.bit;
    }
    if (state == 0) return;
    char hex[kHexStateText];
    (void)std::snprintf(hex, sizeof hex, "%x", state);
    appendWord(line, hex);
}

void appendProtocol(std::string &line, int protocol) {
    if (protocol == kNoNeighProtocol) return;
    line.append("proto ");
    if (static_cast<size_t>(protocol) < std::size(kProtocolNames)) {
        appendWord(line, kProtocolNames[protocol]);
        return;
    }
    appendWord(line, std::to_string(protocol));
}

void appendLine(std::string &text, const NeighEntry &entry, const NeighDeviceName &deviceName) {
    char addr[INET6_ADDRSTRLEN] = "";
    if (!inet_ntop(entry.family, entry.addr.data(), addr, sizeof addr)) return;
    appendWord(text, addr);
    if (entry.ifindex != 0) {
        appendWord(text, "dev");
        appendWord(text, deviceName(entry.ifindex));
    }
    if (entry.linkAddrLength > 0) appendLinkAddr(text, entry);
    for (const Name &flag : kFlagNames)
        if (entry.flags & flag.bit) appendWord(text, flag.text);
    appendState(text, entry.state);
    appendProtocol(text, entry.protocol);
    text.push_back('\n');
}

}  // namespace

RouteDumpStatus decodeNeighMessages(std::span<const uint8_t> datagram, uint8_t family,
                                    uint32_t sequence, std::vector<NeighEntry> &entries) {
    if (family != AF_INET && family != AF_INET6) return RouteDumpStatus::Failed;
    return walkRouteDatagram(datagram, sequence, [&](uint16_t type, auto payload) {
        if (type == RTM_NEWNEIGH) decodeNeighbour(payload, family, entries);
    });
}

bool neighShownByDefault(const NeighEntry &entry) {
    constexpr unsigned kShownStates = 0xff & ~NUD_NOARP;
    return (entry.state & kShownStates) || (entry.flags & (NTF_PROXY | NTF_EXT_LEARNED));
}

std::string formatNeighListing(const std::vector<NeighEntry> &entries,
                               const NeighDeviceName &deviceName) {
    std::string text;
    for (const NeighEntry &entry : entries)
        if (neighShownByDefault(entry)) appendLine(text, entry, deviceName);
    return text;
}
