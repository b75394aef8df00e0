#include "control/hostapd_event.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "control/unix_socket.h"
#include "core/log.h"
#include "core/paths.h"
#include "core/text.h"
#include "core/unique_fd.h"
#include "hosts/host_table.h"
#include "hosts/liveness.h"
#include "platform/os.h"

namespace {

constexpr int kBufferGrowth = 4;
constexpr size_t kRecvBufSize = 2048;
constexpr int kConnRecvTimeoutSec = 1;
constexpr size_t kMacTextSize = 32;
constexpr size_t kFdbCommandSize = 128;
constexpr size_t kMaxGroupDigits = 2;
constexpr char kStaDisconnected[] = "AP-STA-DISCONNECTED";

// accept is only called when select reports the socket readable; a socket left
// blocking still works, so a failure here is not fatal.
void makeNonBlocking(int fd) {
    int flags = fcntl(fd, F_GETFL);
    if (flags >= 0) fcntl(fd, F_SETFL, flags | O_NONBLOCK);
}

// The whitespace set of scanf's %s.
bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

void skipBlanks(std::string_view &text) {
    while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
}

// One whitespace-delimited word, as %s reads it, but cut to the room of OUT. The
// rest of an over-long word is skipped, so it cannot spill into the next item.
template <size_t Room>
bool takeWord(std::string_view &text, char (&out)[Room]) {
    skipBlanks(text);
    size_t length = 0;
    while (length < text.size() && !isBlank(text[length])) ++length;
    if (length == 0) return false;
    size_t kept = std::min(length, Room - 1);
    std::memcpy(out, text.data(), kept);
    out[kept] = '\0';
    text.remove_prefix(length);
    return true;
}

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// One MAC group as %02x reads it: leading blanks, then one or two hex digits.
bool takeHexGroup(std::string_view &text, uint8_t &octet) {
    skipBlanks(text);
    unsigned value = 0;
    size_t digits = 0;
    for (; digits < kMaxGroupDigits && digits < text.size(); ++digits) {
        int digit = hexDigit(text[digits]);
        if (digit < 0) break;
        value = value * 16 + static_cast<unsigned>(digit);
    }
    if (digits == 0) return false;
    octet = static_cast<uint8_t>(value);
    text.remove_prefix(digits);
    return true;
}

bool takeMac(std::string_view &text, uint8_t (&mac)[kMacLen]) {
    for (size_t i = 0; i < kMacLen; ++i) {
        if (i > 0) {
            if (text.empty() || text.front() != ':') return false;
            text.remove_prefix(1);
        }
        if (!takeHexGroup(text, mac[i])) return false;
    }
    return true;
}

// The line without its own line end, which the log line supplies.
std::string_view withoutLineEnd(std::string_view text) {
    if (!text.empty() && text.back() == '\n') text.remove_suffix(1);
    if (!text.empty() && text.back() == '\r') text.remove_suffix(1);
    return text;
}

// Whatever the peer wrote is shown escaped, not raw, so that its bytes cannot
// drive the terminal or forge log lines; the line stays one line.
void deliverEvent(const char *text, char *buffer, int size) {
    std::fprintf(stderr, "EVENT: %s\n", escapedText(withoutLineEnd(text)).c_str());
    std::fflush(stderr);
    std::snprintf(buffer, static_cast<size_t>(size), "%s", text);
}

void stationLeft(const uint8_t *mac) {
    hostEntry *host = getHostrixByMac(mac);
    if (!host || !host->valid) return;
    // The table's interface, not the event's first word: that is where the bridge
    // learnt the MAC.
    del_bridge_fdb(host, host->lanHost.ifName);
    _disConnLanHost(host, "process_hostapd_event", __LINE__);
}

}  // namespace

// Over-long words are truncated, not rejected: the authenticator's own words fit,
// and a cut word still leaves the MAC where the line put it.
bool parseHostapdEvent(std::string_view text, HostapdEvent &event) {
    return takeWord(text, event.word) && takeWord(text, event.name) && takeMac(text, event.mac);
}

int init_hostapd_action_sock(int *fd) {
    UniqueFd sock = listenAtPath(HostrixFile::HostapdSocket, ReuseAddrMessage::Plain);
    if (!sock.valid()) return -1;
    makeNonBlocking(sock.get());
    set_socket_buffer_size(sock.get());
    *fd = sock.release();
    return 0;
}

// Room for bursts of departures while the main loop is busy with its duties;
// the forcing variants pass the system limits (they need CAP_NET_ADMIN).
int set_socket_buffer_size(int fd) {
    int size = 0;
    socklen_t length = sizeof size;
    if (getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, &length) < 0)
        logPlain("getsockopt failed: %s %d\n", __func__, __LINE__);
    size *= kBufferGrowth;
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) < 0)
        logPlain("setsockopt failed: %s %d\n", __func__, __LINE__);
    if (setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &size, sizeof size) < 0)
        logPlain("setsockopt failed: %s %d\n", __func__, __LINE__);
    return 0;
}

int recv_hostapd_event(int fd, char *buffer, int size) {
    if (!buffer || size <= 0) return 0;
    // Cleared first, so that a connection that delivers nothing is not mistaken
    // for a repeat of the previous event.
    std::memset(buffer, 0, static_cast<size_t>(size));
    sockaddr_un peer{};
    socklen_t peerLength = sizeof peer;
    UniqueFd conn(accept4(fd, reinterpret_cast<sockaddr *>(&peer), &peerLength, SOCK_CLOEXEC));
    if (!conn.valid()) return 0;
    // The authenticator writes its line as soon as it connects; a peer that stays
    // silent must not stall the main loop beyond this.
    setReceiveTimeout(conn.get(), kConnRecvTimeoutSec);
    char text[kRecvBufSize] = {};
    ssize_t count = recv(conn.get(), text, sizeof text - 1, 0);
    if (count > 0) deliverEvent(text, buffer, size);
    return 0;
}

int process_hostapd_event(char *buffer) {
    HostapdEvent event{};
    if (!buffer || !parseHostapdEvent(buffer, event)) return 0;
    std::fprintf(stderr, "%s %s %s %02x:%02x:%02x:%02x:%02x:%02x\n", "process_hostapd_event",
                 escapedText(event.word).c_str(), escapedText(event.name).c_str(),
                 MAC_ARGS(event.mac));
    std::fflush(stderr);
    if (std::strcmp(event.name, kStaDisconnected) == 0) stationLeft(event.mac);
    return 0;
}

int del_bridge_fdb(hostEntry *host, const char *ifname) {
    char macText[kMacTextSize];
    std::snprintf(macText, sizeof macText, "%02x:%02x:%02x:%02x:%02x:%02x",
                  MAC_ARGS(host->lanHost.mac));
    char command[kFdbCommandSize];
    // A line longer than the buffer is cut, not refused: it still names the MAC first.
    int length = std::snprintf(command, sizeof command, "bridge fdb del %s dev %s vlan 1 master",
                               macText, ifname ? ifname : "");
    if (length < 0) return 0;
    HX_DBG(DBG_TRACE, "[%s %d]:%s\n", __func__, __LINE__, command);
    os_system(command);
    return 0;
}
