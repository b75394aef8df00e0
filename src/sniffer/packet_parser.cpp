#include "sniffer/packet_parser.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <span>

#include "sniffer/neighbor_cache.h"
#include "sniffer/sniffer.h"

// Every packet line is printed in the name of the parser's entry point.
#define PACKET_LOG(format, ...) \
    SNIFFER_LOG_AS(kSnifferPacket, "parse_packet", format __VA_OPT__(, ) __VA_ARGS__)
#define MAC_HEX "%02X%02X%02X%02X%02X%02X"
#define MAC_BYTES(m) (m)[0], (m)[1], (m)[2], (m)[3], (m)[4], (m)[5]
#define IP_BYTES(a) (a)[0], (a)[1], (a)[2], (a)[3]

namespace {

using Bytes = std::span<const uint8_t>;

constexpr size_t kIpv4Len = 4;

// Ethernet II, no VLAN tag recognised.
constexpr size_t kEthSourceMac = 6;
constexpr size_t kEthType = 12;
constexpr size_t kEthHeaderLen = 14;
constexpr uint16_t kEtherTypeIpv4 = 0x0800;
constexpr uint16_t kEtherTypeArp = 0x0806;

// ARP, from the start of the ARP header.
constexpr size_t kArpProtoType = 2;
constexpr size_t kArpOperation = 6;
constexpr size_t kArpSenderMac = 8;
constexpr size_t kArpSenderIp = 14;
constexpr size_t kArpTargetMac = 18;
constexpr size_t kArpTargetIp = 24;
constexpr size_t kArpFixedLen = 8;
constexpr size_t kArpAddressesLen = 20;
constexpr uint16_t kArpReply = 2;

// IPv4: the fixed fields the parser reads lie in the first 20 bytes.
constexpr size_t kIpVersionIhl = 0;
constexpr size_t kIpProtocol = 9;
constexpr size_t kIpSource = 12;
constexpr size_t kIpDestination = 16;
constexpr size_t kIpFixedLen = 20;
constexpr uint8_t kIhlMask = 0x0f;
constexpr size_t kIhlUnit = 4;
constexpr uint8_t kProtoUdp = 17;

// UDP.
constexpr size_t kUdpSourcePort = 0;
constexpr size_t kUdpDestinationPort = 2;
constexpr size_t kUdpLength = 4;
constexpr size_t kUdpHeaderLen = 8;
constexpr uint16_t kBootpServerPort = 67;
constexpr uint16_t kBootpClientPort = 68;

// DHCP (BOOTP layout), from the start of the UDP payload.
constexpr size_t kDhcpOp = 0;
constexpr size_t kDhcpXid = 4;
constexpr size_t kDhcpYiaddr = 16;
constexpr size_t kDhcpGiaddr = 24;
constexpr size_t kDhcpChaddr = 28;
constexpr size_t kDhcpOptions = 240;
constexpr size_t kOptionHeaderLen = 2;
constexpr uint8_t kOptPad = 0;
constexpr uint8_t kOptRouter = 3;
constexpr uint8_t kOptHostName = 12;
constexpr uint8_t kOptRequestedIp = 50;
constexpr uint8_t kOptMessageType = 53;
constexpr uint8_t kOptEnd = 255;
constexpr uint8_t kDhcpOffer = 2;
constexpr uint8_t kDhcpAck = 5;
constexpr uint8_t kDhcpRelease = 7;
constexpr size_t kHostNameBufLen = 256;

constexpr size_t kDumpBytesPerLine = 16;

struct DhcpSummary {
    uint8_t type = 0;
    uint32_t requested = 0;  // network byte order
    uint32_t router = 0;     // network byte order
    char hostName[kHostNameBufLen] = {};
};

// Callers check that OFFSET plus the field's size lies within BYTES.
uint16_t be16(Bytes bytes, size_t offset) {
    return static_cast<uint16_t>(bytes[offset] << 8 | bytes[offset + 1]);
}

uint32_t be32(Bytes bytes, size_t offset) {
    return static_cast<uint32_t>(be16(bytes, offset)) << 16 | be16(bytes, offset + 2);
}

// An IPv4 address kept as it travels (network byte order).
uint32_t wireAddress(Bytes bytes, size_t offset) {
    uint32_t address = 0;
    std::memcpy(&address, bytes.data() + offset, kIpv4Len);
    return address;
}

std::array<uint8_t, kIpv4Len> octets(uint32_t wire) {
    std::array<uint8_t, kIpv4Len> out{};
    std::memcpy(out.data(), &wire, kIpv4Len);
    return out;
}

void recordArpPair(const char *role, Bytes arp, size_t macOffset, size_t ipOffset) {
    const uint8_t *mac = arp.data() + macOffset;
    const uint8_t *ip = arp.data() + ipOffset;
    PACKET_LOG("   %s " MAC_HEX " %d.%d.%d.%d\n", role, MAC_BYTES(mac), IP_BYTES(ip));
    uint32_t address = wireAddress(arp, ipOffset);
    update_neighbor_host(mac, &address, nullptr);
}

void parseArpReply(Bytes arp) {
    if (arp.size() < kArpFixedLen + kArpAddressesLen) return;
    if (be16(arp, kArpProtoType) != kEtherTypeIpv4 || be16(arp, kArpOperation) != kArpReply) return;
    PACKET_LOG("## ARP Reply: \n");
    recordArpPair("Sender", arp, kArpSenderMac, kArpSenderIp);
    recordArpPair("Target", arp, kArpTargetMac, kArpTargetIp);
}

// Host name option: LENGTH bytes of DATA, which the walk has bounded.
void takeHostName(Bytes data, size_t length, DhcpSummary &out) {
    std::memcpy(out.hostName, data.data(), length);
    out.hostName[length] = '\0';
}

// Fixed-size values are read from the option's data onwards as far as the frame
// allows; a value that would run past the frame is left as it was.
void applyDhcpOption(uint8_t code, Bytes data, size_t length, DhcpSummary &out) {
    switch (code) {
        case kOptMessageType:
            if (!data.empty()) out.type = data[0];
            break;
        case kOptHostName:
            takeHostName(data, length, out);
            break;
        case kOptRequestedIp:
            if (data.size() >= kIpv4Len) out.requested = wireAddress(data, 0);
            break;
        case kOptRouter:
            if (data.size() >= kIpv4Len) out.router = wireAddress(data, 0);
            break;
        default:
            break;
    }
}

void walkDhcpOptions(Bytes options, DhcpSummary &out) {
    size_t pos = 0;
    // The option (code, length, data) must end within the frame, pads included.
    while (pos + 1 < options.size()) {
        uint8_t code = options[pos];
        size_t length = options[pos + 1];
        if (pos + kOptionHeaderLen + length > options.size()) return;
        if (code == kOptEnd) return;
        if (code == kOptPad) {
            ++pos;
            continue;
        }
        applyDhcpOption(code, options.subspan(pos + kOptionHeaderLen), length, out);
        pos += kOptionHeaderLen + length;
    }
}

void logDhcp(Bytes dhcp, const DhcpSummary &summary) {
    const uint8_t *client = dhcp.data() + kDhcpChaddr;
    auto requested = octets(summary.requested);
    auto router = octets(summary.router);
    PACKET_LOG("### DHCP Packet: \n");
    PACKET_LOG("    OP %hhu TID 0x%08x CLIENT " MAC_HEX "\n", dhcp[kDhcpOp], be32(dhcp, kDhcpXid),
               MAC_BYTES(client));
    PACKET_LOG("    DHCP(%u) Request %u.%u.%u.%u Gateway %u.%u.%u.%u Hostname %s\n",
               static_cast<unsigned>(summary.type), IP_BYTES(requested), IP_BYTES(router),
               summary.hostName);
}

// DHCP is at least the 240-byte fixed part; the options run to the frame's end.
void decodeDhcp(Bytes dhcp) {
    DhcpSummary summary;
    walkDhcpOptions(dhcp.subspan(kDhcpOptions), summary);
    if (summary.type == kDhcpOffer || summary.type == kDhcpAck) {
        summary.requested = wireAddress(dhcp, kDhcpYiaddr);
        if (summary.router == 0) summary.router = wireAddress(dhcp, kDhcpGiaddr);
    } else if (summary.type == kDhcpRelease) {
        summary.requested = 0;
    }
    logDhcp(dhcp, summary);
    if (summary.type != kDhcpOffer && summary.type != kDhcpAck && summary.type != kDhcpRelease)
        return;
    const char *name = summary.hostName[0] ? summary.hostName : nullptr;
    update_neighbor_host(dhcp.data() + kDhcpChaddr, &summary.requested, name);
}

// IP holds at least the fixed IPv4 fields; UDP runs from the skipped header to the
// frame's end.
void parseUdp(Bytes ip, Bytes udp) {
    if (udp.size() < kUdpHeaderLen || be16(udp, kUdpLength) > udp.size()) return;
    const uint8_t *source = ip.data() + kIpSource;
    const uint8_t *destination = ip.data() + kIpDestination;
    uint16_t destinationPort = be16(udp, kUdpDestinationPort);
    PACKET_LOG("## UDP %u.%u.%u.%u:%u -> %u.%u.%u.%u:%u\n", IP_BYTES(source),
               static_cast<unsigned>(be16(udp, kUdpSourcePort)), IP_BYTES(destination),
               static_cast<unsigned>(destinationPort));
    if (destinationPort != kBootpServerPort && destinationPort != kBootpClientPort) return;
    Bytes payload = udp.subspan(kUdpHeaderLen);
    if (payload.size() < kDhcpOptions) return;
    decodeDhcp(payload);
}

// Any other IPv4 protocol (under the capture filter, IGMP) shows who is alive.
void recordIpv4Sender(const uint8_t *sourceMac, Bytes ip) {
    const uint8_t *source = ip.data() + kIpSource;
    const uint8_t *destination = ip.data() + kIpDestination;
    PACKET_LOG("## %u.%u.%u.%u -> %u.%u.%u.%u PROTO %hhu\n", IP_BYTES(source),
               IP_BYTES(destination), ip[kIpProtocol]);
    uint32_t address = wireAddress(ip, kIpSource);
    update_neighbor_host(sourceMac, &address, nullptr);
}

void parseIpv4(const uint8_t *sourceMac, Bytes ip) {
    if (ip.size() < kIpFixedLen) return;
    if (ip[kIpProtocol] != kProtoUdp) {
        recordIpv4Sender(sourceMac, ip);
        return;
    }
    size_t headerLen = kIhlUnit * (ip[kIpVersionIhl] & kIhlMask);
    if (headerLen > ip.size()) return;
    parseUdp(ip, ip.subspan(headerLen));
}

void dumpLine(Bytes run) {
    // "  (%p)" plus " %02hhX" per byte: well under this even for a 64-bit pointer.
    char line[32 + 3 * kDumpBytesPerLine];
    int used = std::snprintf(line, sizeof line, "  (%p)", static_cast<const void *>(run.data()));
    for (uint8_t byte : run)
        used += std::snprintf(line + used, sizeof line - used, " %02hhX", byte);
    logPlain("%s\n", line);
}

}  // namespace

int parse_packet(const uint8_t *frame, size_t length) {
    if (length < kEthHeaderLen) return -1;
    Bytes bytes(frame, length);
    uint16_t etherType = be16(bytes, kEthType);
    if (etherType == kEtherTypeArp) parseArpReply(bytes.subspan(kEthHeaderLen));
    if (etherType == kEtherTypeIpv4) parseIpv4(frame + kEthSourceMac, bytes.subspan(kEthHeaderLen));
    return 0;
}

int dump_packet(const uint8_t *frame, size_t length) {
    Bytes bytes(frame, length);
    for (size_t start = 0; start < length; start += kDumpBytesPerLine)
        dumpLine(bytes.subspan(start, std::min(kDumpBytesPerLine, length - start)));
    return 0;
}
