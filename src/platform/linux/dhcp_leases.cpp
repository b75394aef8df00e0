// The DHCP server's leases as 100-byte records, read from the dnsmasq lease file.
#include "platform/linux/dhcp_leases.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "core/unique_fd.h"
#include "platform/linux/mib_store.h"
#include "platform/linux/read_util.h"
#include "platform/os.h"

namespace {

constexpr size_t kIpv4TextBytes = 15;  // "255.255.255.255"
constexpr std::string_view kNoHostname = "*";

// A dotted-quad IPv4 address other than 0.0.0.0, in network byte order.
bool parseIpv4(std::string_view text, uint32_t &ip) {
    if (text.empty() || text.size() > kIpv4TextBytes) return false;
    char buffer[kIpv4TextBytes + 1] = {};
    std::memcpy(buffer, text.data(), text.size());
    in_addr address{};
    if (inet_pton(AF_INET, buffer, &address) != 1 || address.s_addr == 0) return false;
    ip = address.s_addr;
    return true;
}

bool parseExpiry(std::string_view text, uint64_t &expiry) {
    const char *end = text.data() + text.size();
    auto [stop, error] = std::from_chars(text.data(), end, expiry);
    return !text.empty() && error == std::errc() && stop == end;
}

// Seconds left at NOW, host order: 0 once expired, kInfiniteLeaseSeconds for no end.
uint32_t remainingSeconds(uint64_t expiry, time_t now) {
    if (expiry == 0) return kInfiniteLeaseSeconds;
    uint64_t current = now > 0 ? static_cast<uint64_t>(now) : 0;
    if (expiry <= current) return 0;
    return static_cast<uint32_t>(std::min<uint64_t>(expiry - current, kInfiniteLeaseSeconds));
}

void copyHostname(std::string_view name, char (&field)[sizeof dhcp_lease::hostname]) {
    if (name == kNoHostname || name.size() >= sizeof field) return;  // stays empty
    std::memcpy(field, name.data(), name.size());
    field[name.size()] = '\0';
}

}  // namespace

bool parseDnsmasqLeaseLine(std::string_view line, time_t now, dhcp_lease &out) {
    std::string_view expiryText = nextToken(line), macText = nextToken(line);
    std::string_view ipText = nextToken(line), nameText = nextToken(line);
    dhcp_lease lease{};
    uint64_t expiry = 0;
    if (nameText.empty() || !parseExpiry(expiryText, expiry) || !parseMacText(macText, lease.mac) ||
        !parseIpv4(ipText, lease.ip))
        return false;
    lease.leaseTime = htonl(remainingSeconds(expiry, now));
    copyHostname(nameText, lease.hostname);
    out = lease;
    return true;
}

size_t parseDnsmasqLeases(std::string_view text, time_t now, std::span<dhcp_lease> out) {
    size_t count = 0;
    while (!text.empty() && count < out.size()) {
        size_t end = std::min(text.find('\n'), text.size());
        if (parseDnsmasqLeaseLine(text.substr(0, end), now, out[count])) ++count;
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return count;
}

namespace {

struct FreeDeleter {
    void operator()(void *block) const { std::free(block); }
};
using LeaseBlock = std::unique_ptr<dhcp_lease[], FreeDeleter>;

// The whole lines among the first kMaxLeaseFileBytes of the file; false when it
// cannot be read or is empty.
bool readLeaseText(const char *path, std::unique_ptr<char[]> &text, size_t &size) {
    UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    struct stat st {};
    if (!fd.valid() || fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_size <= 0)
        return false;
    size_t limit = std::min(static_cast<size_t>(st.st_size), kMaxLeaseFileBytes);
    text.reset(new (std::nothrow) char[limit]);
    ssize_t got = text ? readUpTo(fd.get(), text.get(), limit) : -1;
    if (got <= 0) return false;
    size = static_cast<size_t>(got);
    bool clipped = size == kMaxLeaseFileBytes && static_cast<size_t>(st.st_size) > size;
    if (clipped) size = std::string_view(text.get(), size).rfind('\n') + 1;  // npos + 1 is 0
    return size > 0;
}

}  // namespace

// The array is one malloc block; the daemon releases it with free.
int getDhcpClientLeasesDB(dhcp_lease **array, unsigned long *) {
    if (!array) return 0;
    *array = nullptr;
    std::unique_ptr<char[]> text;
    size_t size = 0;
    if (!readLeaseText(mibConfigCurrent().leaseFile.c_str(), text, size)) return 0;
    LeaseBlock leases(static_cast<dhcp_lease *>(std::malloc(kMaxDhcpLeases * sizeof(dhcp_lease))));
    if (!leases) return 0;
    size_t count = parseDnsmasqLeases(std::string_view(text.get(), size), os_time(),
                                      std::span(leases.get(), kMaxDhcpLeases));
    if (count == 0) return 0;
    void *fitted = std::realloc(leases.get(), count * sizeof(dhcp_lease));
    if (fitted) (void)leases.release();  // realloc moved or shrank the block
    *array = fitted ? static_cast<dhcp_lease *>(fitted) : leases.release();
    return static_cast<int>(count);
}
