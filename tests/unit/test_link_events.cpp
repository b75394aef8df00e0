// Link events on crafted netlink bytes, acted upon against real bridges in a private
// network namespace.
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

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

// A link message for IFNAME of FAMILY, with MASTER_BYTES of its master's index.
Bytes link(uint16_t type, const char *ifname, uint32_t master = 0, unsigned char family = AF_BRIDGE,
           size_t masterBytes = sizeof(uint32_t)) {
    Bytes index = raw(master);
    index.resize(masterBytes);
    const Bytes attributes = join({nlbytes::attr(IFLA_IFNAME, nlbytes::text(ifname)),
                                   master ? nlbytes::attr(IFLA_MASTER, index) : Bytes{}});
    return nlbytes::message(type, 0, join({raw(ifinfomsg{family, 0, 0, 0, 0, 0}), attributes}));
}

// An exactly sized heap copy, so that ASan catches a read past the end.
void feed(const Bytes &bytes) {
    auto copy = std::make_unique<uint8_t[]>(bytes.size());
    std::copy(bytes.begin(), bytes.end(), copy.get());
    process_nl_messages({copy.get(), bytes.size()});
}

// As one datagram through the event reader, whose buffer keeps earlier longer ones.
int readAsEvent(const Bytes &bytes) {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, pair) != 0) return -2;
    const bool sent = send(pair[0], bytes.data(), bytes.size(), 0) == ssize_t(bytes.size());
    const int result = sent ? read_nl_event(pair[1]) : -2;
    close(pair[0]);
    close(pair[1]);
    return result;
}

constexpr const char *kLongPort = "nas0_abcdefghij";  // IFNAMSIZ - 1 characters

// "name/master" of each monitored one of the interfaces made below.
std::string monitored() {
    std::string out;
    for (const char *name : {"br0", "nas0_1", "eth0.3", "nas0_2", "nas1_0", kLongPort})
        if (const sd_intf *r = find_monitor_intf(name))
            out += (out.empty() ? "" : " ") + std::string(name) + "/" +
                   (r->master ? r->master->ifname : "NULL");
    return out;
}

// br0 (monitored) with the ports nas0_1, eth0.3, nas1_0 and kLongPort; br1 with nas0_2.
bool makeBridges() {
    if (std::system("ip link add br0 type bridge && ip link add br1 type bridge && i=0; "
                    "for p in nas0_1:br0 eth0.3:br0 nas0_2:br1 nas1_0:br0 nas0_abcdefghij:br0; do "
                    "i=$((i+1)); ip link add ${p%:*} type veth peer name hxp$i && "
                    "ip link set ${p%:*} master ${p#*:} || exit 1; done") != 0)
        return false;
    for (const auto &port : std::filesystem::directory_iterator("/sys/class/net"))
        for (const auto &entry : std::filesystem::directory_iterator(port.path()))
            if (entry.path().filename().string().starts_with("upper_"))
                fake::state().kernelFiles[entry.path()] = "";
    return add_monitor_intf("br0", nullptr) != nullptr;
}

// A "nas0" port of a monitored bridge is followed, other names and bridges are not, and
// only on the bridge's own notifications; the lab's sniffer test sees ports come and go.
int walkInChild() {
    if (!makeBridges()) return kNetnsNoSetup;
    const uint32_t br0 = if_nametoindex("br0"), br1 = if_nametoindex("br1");
    // What the step is, its bytes, whether they come through the reader, and the
    // monitored interfaces after it.
    const Bytes unwatched = link(RTM_NEWLINK, "eth0.3", br0);
    const std::tuple<const char *, Bytes, bool, const char *> steps[] = {
        {"eth0.3 and nas1_0 are no watched ports",
         join({unwatched, link(RTM_NEWLINK, "nas1_0", br0)}), false, "br0/NULL"},
        {"bridge not monitored", link(RTM_NEWLINK, "nas0_2", br1), false, "br0/NULL"},
        {"the link's own message", link(RTM_NEWLINK, "nas0_1", br0, AF_UNSPEC), false, "br0/NULL"},
        {"a short master index", link(RTM_NEWLINK, "nas0_1", br0, AF_BRIDGE, 2), false, "br0/NULL"},
        {"a port joins in a second message", join({unwatched, link(RTM_NEWLINK, "nas0_1", br0)}),
         true, "br0/NULL nas0_1/br0"},
        {"the port leaves", link(RTM_DELLINK, "nas0_1"), false, "br0/NULL"},
        {"a shorter datagram", unwatched, true, "br0/NULL"},
        {"a port with the longest name", link(RTM_NEWLINK, kLongPort, br0), false,
         "br0/NULL nas0_abcdefghij/br0"},
        {"bridge leaves with its ports", link(RTM_DELLINK, "br0"), false, ""},
    };
    for (const auto &[what, bytes, viaReader, after] : steps) {
        if (!viaReader)
            feed(bytes);
        else if (readAsEvent(bytes) != 0)
            return kNetnsCheckFailed;
        if (monitored() != after) {
            std::fprintf(stderr, "%s: %s\n", what, monitored().c_str());
            return kNetnsCheckFailed;
        }
    }
    if (readAsEvent({}) != -1) return kNetnsCheckFailed;  // an empty read is an error
    return kNetnsPassed;
}

using LinkEventsTest = HostrixTest;

TEST_F(LinkEventsTest, OnlyWatchedPortsOfAMonitoredBridgeJoinAndABridgeLeavesWithItsPorts) {
    expectPassesInPrivateNetns(walkInChild);
}

}  // namespace
