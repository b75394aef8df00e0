// hostrix-dhcp-script: dnsmasq's --dhcp-script. dnsmasq runs it as
// "SCRIPT ACTION MAC IP [HOSTNAME]" for every lease change (and with other second
// arguments for DHCPv6, ARP and TFTP calls). A "del" of an IPv4 lease tells the
// daemon that the host released its lease or let it end; every other call does
// nothing. It always exits 0 at once: dnsmasq waits for it.
#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <span>
#include <string_view>

#include "args.h"
#include "control/ctrl_msg.h"
#include "hook_socket.h"

namespace {

constexpr std::string_view kLeaseDeleted = "del";

// The release request for ARGS (argv without the program), if they are "del MAC IPV4 ...".
std::optional<ctrlMsg_t> releaseRequest(std::span<char *const> args) {
    in_addr ip{};
    if (args.size() < 3 || args[0] != kLeaseDeleted || inet_pton(AF_INET, args[2], &ip) != 1)
        return std::nullopt;
    std::optional<MacAddress> mac = parseMac(args[1]);
    if (!mac) return std::nullopt;
    ctrlMsg_t msg{};  // needReply 0: nobody waits for the answer
    msg.cmd = CMD_SET_DHCP_RELEASE;
    std::memcpy(msg.data, mac->data(), kCtrlMacLen);
    return msg;
}

}  // namespace

int main(int argc, char **argv) {
    try {
        std::span<char *const> args(argv, static_cast<size_t>(argc));
        if (auto request = releaseRequest(args.subspan(std::min<size_t>(args.size(), 1))))
            sendToDaemon("hostrix-dhcp-script", HostrixFile::ControlSocket, &*request,
                         sizeof *request);
    } catch (...) {  // out of memory: dnsmasq must still see success
    }
    return 0;
}
