// hostrix-dhcp-script: dnsmasq's --dhcp-script. dnsmasq runs it as
// "SCRIPT ACTION MAC IP [HOSTNAME]" for every lease change (and with other second
// arguments for DHCPv6, ARP and TFTP calls). A "del" of an IPv4 lease tells the
// daemon that the host released its lease or let it end. An "add" or "old" hands
// the agent, when it runs, what dnsmasq tells about the client: its supplied host
// name, client id, vendor class and requested options (its DHCP fingerprint).
// Every other call does nothing. It always exits 0 at once: dnsmasq waits for it.
#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <span>
#include <string_view>

#include "agent_paths.h"
#include "args.h"
#include "control/ctrl_msg.h"
#include "core/unique_fd.h"
#include "dhcp_report.h"
#include "hook_socket.h"

namespace {

constexpr std::string_view kLeaseDeleted = "del";
constexpr std::string_view kLeaseAdded = "add";
constexpr std::string_view kLeaseKnown = "old";

bool isIpv4(const char *text) {
    in_addr ip{};
    return inet_pton(AF_INET, text, &ip) == 1;
}

// The release request for ARGS (argv without the program), if they are "del MAC IPV4 ...".
std::optional<ctrlMsg_t> releaseRequest(std::span<char *const> args) {
    if (args.size() < 3 || args[0] != kLeaseDeleted || !isIpv4(args[2])) return std::nullopt;
    std::optional<MacAddress> mac = parseMac(args[1]);
    if (!mac) return std::nullopt;
    ctrlMsg_t msg{};  // needReply 0: nobody waits for the answer
    msg.cmd = CMD_SET_DHCP_RELEASE;
    std::memcpy(msg.data, mac->data(), kCtrlMacLen);
    return msg;
}

std::string environment(const char *name) {
    const char *value = std::getenv(name);
    return value ? value : "";
}

// The fingerprint for ARGS if they are "add|old MAC IPV4 ...".
std::optional<DhcpReport> fingerprint(std::span<char *const> args) {
    if (args.size() < 3 || (args[0] != kLeaseAdded && args[0] != kLeaseKnown) || !isIpv4(args[2]))
        return std::nullopt;
    std::optional<MacAddress> mac = parseMac(args[1]);
    if (!mac) return std::nullopt;
    DhcpReport report;
    report.mac = *mac;
    report.hostname = environment("DNSMASQ_SUPPLIED_HOSTNAME");
    report.clientId = environment("DNSMASQ_CLIENT_ID");
    report.vendorClass = environment("DNSMASQ_VENDOR_CLASS");
    // What the agent cannot parse it drops; a bad list here only costs the options.
    std::string options = environment("DNSMASQ_REQUESTED_OPTIONS");
    if (auto parsed = parseDhcpReport("mac=00:00:00:00:00:00\noptions=" + options))
        report.options = parsed->options;
    return report;
}

// One datagram, never waiting: an agent that is not running or not reading loses it.
void sendToAgent(const DhcpReport &report) {
    std::string path = agentPath(kAgentDhcpSocketBase), datagram = formatDhcpReport(report);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path) return;
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    UniqueFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd.valid()) return;
    if (sendto(fd.get(), datagram.data(), datagram.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
               reinterpret_cast<sockaddr *>(&addr), sizeof addr) >= 0 ||
        errno == ENOENT || errno == ECONNREFUSED)
        return;
    std::fprintf(stderr, "hostrix-dhcp-script: not delivered to hostrix-agent at %s: %s\n",
                 path.c_str(), std::strerror(errno));
}

}  // namespace

int main(int argc, char **argv) {
    try {
        std::span<char *const> args(argv, static_cast<size_t>(argc));
        args = args.subspan(std::min<size_t>(args.size(), 1));
        if (auto request = releaseRequest(args))
            sendToDaemon("hostrix-dhcp-script", HostrixFile::ControlSocket, &*request,
                         sizeof *request);
        if (auto report = fingerprint(args)) sendToAgent(*report);
    } catch (...) {  // out of memory: dnsmasq must still see success
    }
    return 0;
}
