#include "sniffer/link_events.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string>

#include "core/netlink_walk.h"
#include "core/unique_fd.h"
#include "platform/os.h"
#include "sniffer/monitor_intf.h"
#include "sniffer/sniffer.h"

// The walk is part of the netlink read and logs in its name.
#define EVENT_LOG(level, format, ...) \
    SNIFFER_LOG_AS(level, "read_nl_event", format __VA_OPT__(, ) __VA_ARGS__)

namespace {

using Bytes = std::span<const uint8_t>;

constexpr size_t kLinkHeaderLen = sizeof(ifinfomsg);  // 16, after the message header
constexpr size_t kLinkFamily = offsetof(ifinfomsg, ifi_family);
constexpr size_t kMasterIndexLen = sizeof(uint32_t);
constexpr const char *kWanPortPrefix = "nas0";
constexpr size_t kWanPortPrefixLen = 4;
constexpr const char *kRepeaterMark = "vxd";

// Only the sniffer thread reads link events.
alignas(nlmsghdr) uint8_t eventBuffer[kNetlinkBufferSize];

struct LinkEvent {
    bool hasName = false;
    char name[IFNAMSIZ] = {};
    uint32_t master = 0;  // interface index; 0 = none
};

// The name may come without a terminator or longer than any interface name.
void takeName(Bytes payload, LinkEvent &event) {
    const size_t bounded = std::min(payload.size(), sizeof event.name - 1);
    const auto *text = reinterpret_cast<const char *>(payload.data());
    const size_t length = strnlen(text, bounded);
    std::memcpy(event.name, text, length);
    event.name[length] = '\0';
    event.hasName = true;
}

void takeAttribute(uint16_t type, Bytes payload, LinkEvent &event) {
    if (type == IFLA_IFNAME) takeName(payload, event);
    if (type == IFLA_MASTER && payload.size() >= kMasterIndexLen)
        std::memcpy(&event.master, payload.data(), kMasterIndexLen);
}

// Attributes run while a whole one remains; a length that does not fit ends the walk.
// The type is taken with its flag bits, which the kernel never sets on these two.
LinkEvent decodeLinkAttributes(Bytes attributes) {
    LinkEvent event;
    (void)netlink::forEachAttribute(attributes, [&](const nlattr *attr) {
        takeAttribute(attr->nla_type, netlink::payloadOf(attr), event);
        return true;
    });
    return event;
}

bool isWatchedPortName(const char *name) {
    return std::strncmp(name, kWanPortPrefix, kWanPortPrefixLen) == 0 ||
           std::strstr(name, kRepeaterMark) != nullptr;
}

void actOnBridgePort(uint16_t type, const LinkEvent &event) {
    char kernelMaster[IF_NAMESIZE] = {};
    if (event.master != 0 && !if_indextoname(event.master, kernelMaster)) kernelMaster[0] = '\0';
    // The kernel names the port and its bridge; the list and its rules use gateway names.
    const std::string name = os_gateway_ifname(event.name);
    const std::string master = kernelMaster[0] ? os_gateway_ifname(kernelMaster) : std::string();
    EVENT_LOG(kSnifferPacket, "Ifname %s, master %s(%u)\n", name.c_str(), master.c_str(),
              event.master);
    sd_intf *record = find_monitor_intf(name.c_str());
    // Only this thread changes the list, so the record stays valid after the lookup.
    if (type == RTM_NEWLINK && !record && event.master != 0 && !master.empty() &&
        isWatchedPortName(name.c_str()))
        add_monitor_intf(name.c_str(), master.c_str());
    if (type == RTM_DELLINK && record) del_monitor_intf(record);
}

void processLinkMessage(const nlmsghdr *message) {
    const Bytes payload = netlink::payloadOf(message);
    if (payload.size() < kLinkHeaderLen) return;
    const LinkEvent event = decodeLinkAttributes(payload.subspan(kLinkHeaderLen));
    // Bridge port notifications carry the bridge family; the others repeat the link's.
    if (event.hasName && payload[kLinkFamily] == AF_BRIDGE)
        actOnBridgePort(message->nlmsg_type, event);
}

}  // namespace

int init_netlink_socket() {
    UniqueFd fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    if (!fd.valid()) {
        SNIFFER_LOG(kSnifferError, "Socket error: %s\n", std::strerror(errno));
        return -1;
    }
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_pid = static_cast<uint32_t>(getpid());
    address.nl_groups = RTMGRP_LINK;
    if (bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        SNIFFER_LOG(kSnifferError, "Bind socket error: %s\n", std::strerror(errno));
        return -1;
    }
    return fd.release();
}

int read_nl_event(int fd) {
    sockaddr_nl source{};
    iovec vector{eventBuffer, sizeof eventBuffer};
    msghdr message{};
    message.msg_name = &source;
    message.msg_namelen = sizeof source;
    message.msg_iov = &vector;
    message.msg_iovlen = 1;
    const ssize_t received = recvmsg(fd, &message, 0);
    SNIFFER_LOG(kSnifferProgress, "Read netlink event, ret %d\n", static_cast<int>(received));
    if (received < 1) return -1;
    process_nl_messages(Bytes(eventBuffer, static_cast<size_t>(received)));
    return 0;
}

void process_nl_messages(std::span<const uint8_t> bytes) {
    (void)netlink::forEachMessage(bytes, [](const nlmsghdr *message) {
        EVENT_LOG(kSnifferPacket, "Process netlink event, type %d\n", message->nlmsg_type);
        if (message->nlmsg_type == RTM_NEWLINK || message->nlmsg_type == RTM_DELLINK)
            processLinkMessage(message);
        return true;
    });
}
