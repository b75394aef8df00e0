// Link events on crafted netlink bytes, acted upon against real bridges in a private
// network namespace; one case through the socket read.
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>

#include "core/unique_fd.h"
#include "fixture.h"
#include "netlink_bytes.h"
#include "netns_child.h"
#include "sniffer/link_events.h"
#include "sniffer/monitor_intf.h"

namespace {

using nlbytes::Bytes;
using nlbytes::join;
using nlbytes::raw;

Bytes text(const std::string &value, bool terminated = true) {
    Bytes out(value.begin(), value.end());
    if (terminated) out.push_back(0);
    return out;
}

Bytes name(const std::string &ifname) {
    return nlbytes::attr(IFLA_IFNAME, text(ifname));
}

Bytes master(uint32_t ifindex) {
    return nlbytes::attr(IFLA_MASTER, raw(ifindex));
}

Bytes link(uint16_t type, const Bytes &attributes, uint8_t family = AF_BRIDGE) {
    ifinfomsg info{};
    info.ifi_family = family;
    return nlbytes::message(type, 0, join({raw(info), attributes}));
}

Bytes withLength(Bytes message, uint32_t length) {
    std::memcpy(message.data(), &length, sizeof length);
    return message;
}

// MESSAGE without the padding after its last attribute, so that nothing follows it.
Bytes unpadded(Bytes message, size_t padding) {
    message.resize(message.size() - padding);
    return withLength(message, uint32_t(message.size()));
}

// An exactly sized heap copy, so that ASan catches a read past the end.
void feed(const Bytes &bytes) {
    auto copy = std::make_unique<uint8_t[]>(bytes.size());
    std::copy(bytes.begin(), bytes.end(), copy.get());
    process_nl_messages({copy.get(), bytes.size()});
}

// "name/master" of each monitored one of the interfaces made below.
std::string monitored() {
    std::string out;
    for (const char *name : {"br0", "nas0_1", "wlan0-vxd-12345", "eth0.3", "nas0_2"})
        if (const sd_intf *r = find_monitor_intf(name))
            out += (out.empty() ? "" : " ") + std::string(name) + "/" +
                   (r->master ? r->master->ifname : "NULL");
    return out;
}

bool makeBridges() {
    if (std::system("ip link add br0 type bridge && ip link add br1 type bridge && "
                    "i=0; for p in nas0_1:br0 wlan0-vxd-12345:br0 eth0.3:br0 nas0_2:br1; do "
                    "i=$((i+1)); ip link add ${p%:*} type veth peer name hxp$i && "
                    "ip link set ${p%:*} master ${p#*:} || exit 1; done") != 0)
        return false;
    for (const auto &port : std::filesystem::directory_iterator("/sys/class/net"))
        for (const auto &entry : std::filesystem::directory_iterator(port.path()))
            if (entry.path().filename().string().starts_with("upper_"))
                fake::state().kernelFiles[entry.path()] = "";
    return true;
}

int walkInChild() {
    if (!makeBridges()) return kNetnsNoSetup;
    NETNS_CHECK(add_monitor_intf("br0", nullptr));
    const uint32_t br0 = if_nametoindex("br0"), br1 = if_nametoindex("br1");
    const Bytes nas = join({name("nas0_1"), master(br0)});
    const Bytes brokenAttribute = raw(rtattr{200, 1});
    struct Step {
        const char *what;
        Bytes bytes;
        const char *after;
    } const steps[] = {
        {"eth0.3 is no watched port", link(RTM_NEWLINK, join({name("eth0.3"), master(br0)})),
         "br0/NULL"},
        {"another family", link(RTM_NEWLINK, nas, AF_UNSPEC), "br0/NULL"},
        {"another type", link(RTM_GETLINK, nas), "br0/NULL"},
        {"length past the end",
         join({withLength(link(RTM_NEWLINK, nas), 2048), link(RTM_NEWLINK, nas)}), "br0/NULL"},
        {"short master",
         link(RTM_NEWLINK, join({name("nas0_1"), nlbytes::attr(IFLA_MASTER, {uint8_t(br0), 0})})), "br0/NULL"},
        {"bridge not monitored", link(RTM_NEWLINK, join({name("nas0_2"), master(br1)})),
         "br0/NULL"},
        {"second message",
         join({link(RTM_NEWLINK, join({name("eth0.3"), master(br0)})), link(RTM_NEWLINK, nas)}),
         "br0/NULL nas0_1/br0"},
        {"unterminated name of 15 bytes, last",
         unpadded(link(RTM_NEWLINK,
                       join({master(br0), nlbytes::attr(IFLA_IFNAME, text("wlan0-vxd-12345", false))})),
                  1),
         "br0/NULL nas0_1/br0 wlan0-vxd-12345/br0"},
        {"overlong name",
         link(RTM_NEWLINK,
              join({nlbytes::attr(IFLA_IFNAME, text("nas0_1" + std::string(34, 'w'), false)),
                    master(br0)})),
         "br0/NULL nas0_1/br0 wlan0-vxd-12345/br0"},
        {"port leaves", link(RTM_DELLINK, nas), "br0/NULL wlan0-vxd-12345/br0"},
        {"bridge leaves with its ports", link(RTM_DELLINK, name("br0")), ""},
    };
    for (const Step &step : steps) {
        feed(step.bytes);
        if (monitored() != step.after) {
            std::fprintf(stderr, "%s: %s\n", step.what, monitored().c_str());
            return kNetnsCheckFailed;
        }
    }
    return kNetnsPassed;
}

// The read acts on the bytes received only: a message cut short by its datagram stays
// cut even where the buffer still holds the rest of an earlier one.
int readInChild() {
    if (!makeBridges()) return kNetnsNoSetup;
    NETNS_CHECK(add_monitor_intf("br0", nullptr));
    const Bytes joins = link(RTM_NEWLINK, join({name("nas0_1"), master(if_nametoindex("br0"))}));
    int pair[2];
    NETNS_CHECK(socketpair(AF_UNIX, SOCK_DGRAM, 0, pair) == 0);
    UniqueFd reader(pair[0]), writer(pair[1]);
    const size_t cutLength = joins.size() - 8;
    NETNS_CHECK(send(writer.get(), joins.data(), joins.size(), 0) == ssize_t(joins.size()));
    NETNS_CHECK(read_nl_event(reader.get()) == 0 && monitored() == "br0/NULL nas0_1/br0");
    del_monitor_intf(find_monitor_intf("nas0_1"));
    NETNS_CHECK(send(writer.get(), joins.data(), cutLength, 0) == ssize_t(cutLength));
    NETNS_CHECK(read_nl_event(reader.get()) == 0 && monitored() == "br0/NULL");
    NETNS_CHECK(send(writer.get(), joins.data(), 0, 0) == 0 && read_nl_event(reader.get()) == -1);
    return kNetnsPassed;
}

class LinkEventsTest : public HostrixTest {};

TEST_F(LinkEventsTest, BridgePortsOfWatchedNamesJoinAndLeaveAndBadLengthsStopTheWalk) {
    expectPassesInPrivateNetns(walkInChild);
}

TEST_F(LinkEventsTest, ReadActsOnTheReceivedBytesOnly) {
    expectPassesInPrivateNetns(readInChild);
}

}  // namespace
