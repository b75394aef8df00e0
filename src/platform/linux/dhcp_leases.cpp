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

bool parseNumber(std::string_view text, uint64_t &value) {
    const char *end = text.data() + text.size();
    auto [stop, error] = std::from_chars(text.data(), end, value);
    return !text.empty() && error == std::errc() && stop == end;
}

LeaseEndKind endKindOf(uint64_t end) {
    if (end == 0) return LeaseEndKind::None;
    return end < kLeaseEpochFloor ? LeaseEndKind::Length : LeaseEndKind::Expiry;
}

// FNV-1a, 64 bits: stable across builds and word sizes, collisions negligible for
// a file's worth of lines.
uint64_t textKey(std::string_view text) {
    uint64_t hash = 0xcbf29ce484222325;
    for (unsigned char byte : text) hash = (hash ^ byte) * 0x100000001b3;
    return hash;
}

void copyHostname(std::string_view name, char (&field)[sizeof dhcp_lease::hostname]) {
    if (name == kNoHostname || name.size() >= sizeof field) return;  // stays empty
    std::memcpy(field, name.data(), name.size());
    field[name.size()] = '\0';
}

uint32_t capped(uint64_t seconds) {
    return static_cast<uint32_t>(std::min<uint64_t>(seconds, kInfiniteLeaseSeconds));
}

// Seconds left at wall time WALL, before any counting down.
uint32_t remainingAtAnchor(const LeaseLine &lease, time_t wall) {
    uint64_t current = wall > 0 ? static_cast<uint64_t>(wall) : 0;
    switch (lease.endKind) {
        case LeaseEndKind::None:
            return kInfiniteLeaseSeconds;  // never counts down
        case LeaseEndKind::Length:
            return capped(lease.end);
        case LeaseEndKind::Expiry:
            return lease.end > current ? capped(lease.end - current) : 0;
    }
    return 0;
}

}  // namespace

bool parseDnsmasqLeaseLine(std::string_view line, LeaseLine &out) {
    std::string_view rest = line, endText = nextToken(rest), macText = nextToken(rest);
    std::string_view ipText = nextToken(rest), nameText = nextToken(rest);
    LeaseLine lease;
    if (nameText.empty() || !parseNumber(endText, lease.end) ||
        !parseMacText(macText, lease.record.mac) || !parseIpv4(ipText, lease.record.ip))
        return false;
    lease.endKind = endKindOf(lease.end);
    lease.textKey = textKey(line);
    copyHostname(nameText, lease.record.hostname);
    out = lease;
    return true;
}

size_t parseDnsmasqLeases(std::string_view text, std::span<LeaseLine> out) {
    size_t count = 0;
    while (!text.empty() && count < out.size()) {
        size_t end = std::min(text.find('\n'), text.size());
        if (parseDnsmasqLeaseLine(text.substr(0, end), out[count])) ++count;
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return count;
}

LeaseAnchors::Anchor LeaseAnchors::anchorFor(const LeaseLine &lease, time_t wall, int64_t mono,
                                             bool rewritten) const {
    auto kept =
        std::lower_bound(anchors_.begin(), anchors_.end(), lease.textKey,
                         [](const Anchor &anchor, uint64_t key) { return anchor.key < key; });
    bool renewed = rewritten && lease.endKind == LeaseEndKind::Length;
    if (kept != anchors_.end() && kept->key == lease.textKey && !renewed) return *kept;
    return {lease.textKey, remainingAtAnchor(lease, wall), mono};
}

void LeaseAnchors::update(std::span<LeaseLine> leases, time_t wall, int64_t mono, bool rewritten) {
    std::vector<Anchor> next;
    next.reserve(leases.size());
    for (LeaseLine &lease : leases) {
        Anchor anchor = anchorFor(lease, wall, mono, rewritten);
        lease.record.leaseTime = htonl(remainingNow(anchor, lease.endKind, mono));
        next.push_back(anchor);
    }
    auto byKey = [](const Anchor &a, const Anchor &b) { return a.key < b.key; };
    auto sameKey = [](const Anchor &a, const Anchor &b) { return a.key == b.key; };
    std::sort(next.begin(), next.end(), byKey);
    next.erase(std::unique(next.begin(), next.end(), sameKey), next.end());
    anchors_ = std::move(next);
}

uint32_t LeaseAnchors::remainingNow(const Anchor &anchor, LeaseEndKind kind, int64_t mono) {
    if (kind == LeaseEndKind::None) return kInfiniteLeaseSeconds;
    // A monotonic clock that could not be read (0) must not add time.
    uint64_t elapsed = static_cast<uint64_t>(std::max<int64_t>(mono - anchor.since, 0));
    return anchor.remaining > elapsed ? static_cast<uint32_t>(anchor.remaining - elapsed) : 0;
}

namespace {

// dnsmasq rewrites the file whole, in place, on every change, so a new stamp
// (FileStamp: its modification time among the rest) marks a rewrite.

// Kept from one read to the next; main thread only.
struct LeaseFileState {
    LeaseAnchors anchors;
    FileStamp stamp;
};

LeaseFileState &leaseFileState() {
    static LeaseFileState state;
    return state;
}

// The whole lines among the first kMaxLeaseFileBytes of the file; false when it
// cannot be read or is empty.
bool readLeaseText(const char *path, std::unique_ptr<char[]> &text, size_t &size,
                   FileStamp &stamp) {
    UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    struct stat st {};
    if (!fd.valid() || fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_size <= 0)
        return false;
    stamp = fileStampOf(st);
    size_t limit = std::min(static_cast<size_t>(st.st_size), kMaxLeaseFileBytes);
    text.reset(new (std::nothrow) char[limit]);
    ssize_t got = text ? readUpTo(fd.get(), text.get(), limit) : -1;
    if (got <= 0) return false;
    size = static_cast<size_t>(got);
    bool clipped = size == kMaxLeaseFileBytes && static_cast<size_t>(st.st_size) > size;
    if (clipped) size = std::string_view(text.get(), size).rfind('\n') + 1;  // npos + 1 is 0
    return size > 0;
}

int64_t monotonicNow() {
    timespec now{};
    return os_clock_monotonic(&now) == 0 ? now.tv_sec : 0;
}

// Anchors the leases against the real clocks and the file's stamp.
void anchorLeases(std::span<LeaseLine> leases, const FileStamp &stamp) {
    LeaseFileState &state = leaseFileState();
    bool rewritten = !(stamp == state.stamp);
    state.stamp = stamp;
    state.anchors.update(leases, os_time(), monotonicNow(), rewritten);
}

}  // namespace

// The array is one malloc block; the daemon releases it with free.
int getDhcpClientLeasesDB(dhcp_lease **array, unsigned long *) {
    if (!array) return 0;
    *array = nullptr;
    std::unique_ptr<char[]> text;
    size_t size = 0;
    FileStamp stamp;
    const char *path = mibConfigCurrent().leaseFile.c_str();
    if (!readLeaseText(path, text, size, stamp)) {
        leaseFileState().stamp = statFileStamp(path);  // its return counts as a change
        return 0;
    }
    std::unique_ptr<LeaseLine[]> lines(new (std::nothrow) LeaseLine[kMaxDhcpLeases]);
    if (!lines) return 0;
    std::span<LeaseLine> leases(lines.get(),
                                parseDnsmasqLeases(std::string_view(text.get(), size),
                                                   std::span(lines.get(), kMaxDhcpLeases)));
    anchorLeases(leases, stamp);
    if (leases.empty()) return 0;
    auto *records = static_cast<dhcp_lease *>(std::malloc(leases.size() * sizeof(dhcp_lease)));
    if (!records) return 0;
    for (size_t i = 0; i < leases.size(); ++i) records[i] = leases[i].record;
    *array = records;
    return static_cast<int>(leases.size());
}

// One stat: a rewrite by the DHCP server changes the inode, size or time.
int isDhcpClientLeasesDBChanged() {
    return statFileStamp(mibConfigCurrent().leaseFile.c_str()) == leaseFileState().stamp ? 0 : 1;
}
