// hostrix-hostapd-action: hostapd_cli's -a action. hostapd_cli runs it as
// "SCRIPT IFNAME EVENT [MAC ...]" for every event of the authenticator; an event
// that names a station goes to the daemon's event socket as the line
// "IFNAME EVENT MAC", with the kernel's interface name turned into the gateway's.
// Every other call does nothing. It always exits 0 at once: hostapd_cli waits for it.
#include <algorithm>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "args.h"
#include "hook_socket.h"
#include "platform/ifname_map.h"

namespace {

// A word that keeps the line one line of three words: printable, no blanks.
bool isWord(std::string_view text) {
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c < 0x7f; });
}

// The event line for ARGS (argv without the program) if they are "IFNAME EVENT MAC
// ...", else "".
std::string eventLine(std::span<char *const> args) {
    if (args.size() < 3 || !isWord(args[0]) || !isWord(args[1])) return {};
    std::optional<MacAddress> mac = parseMac(args[2]);
    if (!mac) return {};
    IfnameMap names = readIfnameMap(hostrixPath(HostrixFile::Config));
    return std::string(names.gatewayOf(args[0])) + ' ' + args[1] + ' ' + formatMac(mac->data());
}

}  // namespace

int main(int argc, char **argv) {
    try {
        std::span<char *const> args(argv, static_cast<size_t>(argc));
        std::string line = eventLine(args.subspan(std::min<size_t>(args.size(), 1)));
        if (!line.empty())
            sendToDaemon("hostrix-hostapd-action", HostrixFile::HostapdSocket, line.data(),
                         line.size());
    } catch (...) {  // out of memory: hostapd_cli must still see success
    }
    return 0;
}
