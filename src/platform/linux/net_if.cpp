// Interface address, hardware address and flags, asked of the kernel with ioctl on a
// throw-away datagram socket.
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cstring>

#include "core/unique_fd.h"
#include "platform/mib.h"
#include "platform/os.h"

namespace {

constexpr size_t kMacBytes = 6;
constexpr size_t kIpv4Bytes = 4;

// Fills REQUEST with NAME; false for a null, empty or too long name.
bool nameRequest(const char *name, ifreq &request) {
    if (!name) return false;
    size_t length = strnlen(name, IFNAMSIZ);
    if (length == 0 || length >= IFNAMSIZ) return false;
    std::memset(&request, 0, sizeof request);
    std::memcpy(request.ifr_name, name, length);
    return true;
}

// Runs one interface ioctl; false when the name or the call fails.
bool askInterface(const char *name, unsigned long command, ifreq &request) {
    if (!name || !nameRequest(os_kernel_ifname(name).c_str(), request)) return false;
    UniqueFd sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    return sock.valid() && ioctl(sock.get(), command, &request) == 0;
}

}  // namespace

int getInAddr(const char *ifname, int type, void *buffer) {
    ifreq request{};
    if (type != IP_ADDR || !buffer || !askInterface(ifname, SIOCGIFADDR, request)) return 0;
    if (request.ifr_addr.sa_family != AF_INET) return 0;
    sockaddr_in address{};
    std::memcpy(&address, &request.ifr_addr, sizeof address);
    std::memcpy(buffer, &address.sin_addr.s_addr, kIpv4Bytes);  // already network order
    return 1;
}

int getMacAddr(const char *ifname, unsigned char *buffer) {
    ifreq request{};
    if (!buffer || !askInterface(ifname, SIOCGIFHWADDR, request)) return -2;
    std::memcpy(buffer, request.ifr_hwaddr.sa_data, kMacBytes);
    return 0;
}

int getInFlags(const char *ifname, int *flags) {
    ifreq request{};
    if (!flags || !askInterface(ifname, SIOCGIFFLAGS, request)) return 0;
    *flags = static_cast<unsigned short>(request.ifr_flags);
    return 1;
}
