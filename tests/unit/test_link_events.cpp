// Link events on crafted netlink bytes, acted upon against real bridges in a private
// network namespace.
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <cstdio>
#include <filesystem>

#include "fixture.h"
#include "netlink_bytes.h"
#include "netns_child.h"
#include "sniffer/link_events.h"
#include "sniffer/monitor_intf.h"

namespace {

using nlbytes::Bytes;
using nlbytes::join;
using nlbytes::raw;

// A bridge's link message for IFNAME, with its master's index unless that is 0.
Bytes link(uint16_t type, const char *ifname, uint32_t master = 0) {
    const Bytes attributes = join({nlbytes::attr(IFLA_IFNAME, nlbytes::text(ifname)),
                                   master ? nlbytes::attrOf(IFLA_MASTER, master) : Bytes{}});
    return nlbytes::message(type, 0, join({raw(ifinfomsg{AF_BRIDGE, 0, 0, 0, 0, 0}), attributes}));
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
    for (const char *name : {"br0", "nas0_1", "eth0.3", "nas0_2", "nas1_0"})
        if (const sd_intf *r = find_monitor_intf(name))
            out += (out.empty() ? "" : " ") + std::string(name) + "/" +
                   (r->master ? r->master->ifname : "NULL");
    return out;
}

// br0 (monitored) with the ports nas0_1, eth0.3 and nas1_0; br1 with nas0_2.
bool makeBridges() {
    if (std::system("ip link add br0 type bridge && ip link add br1 type bridge && i=0; "
                    "for p in nas0_1:br0 eth0.3:br0 nas0_2:br1 nas1_0:br0; do "
                    "i=$((i+1)); ip link add ${p%:*} type veth peer name hxp$i && "
                    "ip link set ${p%:*} master ${p#*:} || exit 1; done") != 0)
        return false;
    for (const auto &port : std::filesystem::directory_iterator("/sys/class/net"))
        for (const auto &entry : std::filesystem::directory_iterator(port.path()))
            if (entry.path().filename().string().starts_with("upper_"))
                fake::state().kernelFiles[entry.path()] = "";
    return add_monitor_intf("br0", nullptr) != nullptr;
}

// A "nas0" port is followed, other names are not, and only into a monitored bridge; the
// lab's sniffer test sees ports come and go. Bounds are the walker's and fuzz target's.
int walkInChild() {
    if (!makeBridges()) return kNetnsNoSetup;
    const uint32_t br0 = if_nametoindex("br0"), br1 = if_nametoindex("br1");
    // What the step is, its bytes, and the monitored interfaces after it.
    const std::tuple<const char *, Bytes, const char *> steps[] = {
        {"eth0.3 and nas1_0 are no watched ports",
         join({link(RTM_NEWLINK, "eth0.3", br0), link(RTM_NEWLINK, "nas1_0", br0)}), "br0/NULL"},
        {"bridge not monitored", link(RTM_NEWLINK, "nas0_2", br1), "br0/NULL"},
        {"a port joins in a second message",
         join({link(RTM_NEWLINK, "eth0.3", br0), link(RTM_NEWLINK, "nas0_1", br0)}),
         "br0/NULL nas0_1/br0"},
        {"bridge leaves with its ports", link(RTM_DELLINK, "br0"), ""},
    };
    for (const auto &[what, bytes, after] : steps) {
        feed(bytes);
        if (monitored() != after) {
            std::fprintf(stderr, "%s: %s\n", what, monitored().c_str());
            return kNetnsCheckFailed;
        }
    }
    return kNetnsPassed;
}

using LinkEventsTest = HostrixTest;

TEST_F(LinkEventsTest, OnlyWatchedPortsOfAMonitoredBridgeJoinAndABridgeLeavesWithItsPorts) {
    expectPassesInPrivateNetns(walkInChild);
}

}  // namespace
