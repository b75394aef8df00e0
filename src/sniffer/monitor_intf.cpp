#include "sniffer/monitor_intf.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <pthread.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/unique_fd.h"
#include "platform/os.h"
#include "sniffer/packet_parser.h"
#include "sniffer/sniffer.h"

// Messages of the helpers below are printed in the name of the operation they serve.
#define ADD_LOG(level, format, ...) \
    SNIFFER_LOG_AS(level, "__add_monitor_intf", format __VA_OPT__(, ) __VA_ARGS__)
#define RECEIVE_LOG(level, format, ...) \
    SNIFFER_LOG_AS(level, "check_monitor_sd_set", format __VA_OPT__(, ) __VA_ARGS__)

namespace {

constexpr std::string_view kLowerLinkPrefix = "lower_";

TAILQ_HEAD(sd_intf_list, sd_intf);
sd_intf_list monitorList = TAILQ_HEAD_INITIALIZER(monitorList);
pthread_mutex_t monitorListMutex = PTHREAD_MUTEX_INITIALIZER;
// Whether this thread holds the list lock, so that the cancellation handler can tell.
thread_local bool monitorListLockHeld = false;

// Used only by the sniffer thread.
uint8_t frameBuffer[kSnifferFrameBufferSize];

class MonitorListLock {
   public:
    MonitorListLock() {
        pthread_mutex_lock(&monitorListMutex);
        monitorListLockHeld = true;
    }
    ~MonitorListLock() {
        monitorListLockHeld = false;
        pthread_mutex_unlock(&monitorListMutex);
    }
    MonitorListLock(const MonitorListLock &) = delete;
    MonitorListLock &operator=(const MonitorListLock &) = delete;
};

bool isSlaveOf(const char *ifname, const sd_intf &master) {
    char path[128];
    std::snprintf(path, sizeof path, "/sys/class/net/%s/upper_%s", os_kernel_ifname(ifname).c_str(),
                  os_kernel_ifname(master.ifname).c_str());
    return os_kernel_path_exists(path);
}

// The checks that need no resources: not yet monitored, and a monitored master of
// which IFNAME is a port. MASTERRECORD is set when a master is named.
bool mayAdd(const char *ifname, const char *master, sd_intf *&masterRecord) {
    if (__find_monitor_intf(ifname, nullptr)) {
        ADD_LOG(kSnifferNotice, "Interface(%s) already monitor\n", ifname);
        return false;
    }
    if (!master) return true;
    masterRecord = __find_monitor_intf(master, nullptr);
    if (!masterRecord) {
        ADD_LOG(kSnifferNotice, "Cannot found master(%s)\n", master);
        return false;
    }
    if (!isSlaveOf(ifname, *masterRecord)) {
        ADD_LOG(kSnifferNotice, "The interface(%s) isnt slave of the master(%s)\n", ifname, master);
        return false;
    }
    return true;
}

// A packet socket on IFINDEX that sees every protocol, filtered in the kernel. It is
// opened for no protocol, so that nothing is queued on it, and bound to the interface
// and every protocol only once the filter is attached: no unfiltered frame, and no
// frame from another interface, ever reaches it.
UniqueFd openFilteredSocket(uint32_t ifindex) {
    // Close-on-exec: commands the daemon runs must not inherit a capture socket.
    UniqueFd sock(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0));
    if (!sock.valid()) {
        ADD_LOG(kSnifferError, "Socket error: %s\n", std::strerror(errno));
        return sock;
    }
    // The kernel copies the program; it does not write through the pointer.
    const sock_fprog program{static_cast<unsigned short>(kSnifferFilter.size()),
                             const_cast<sock_filter *>(kSnifferFilter.data())};
    if (setsockopt(sock.get(), SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program) != 0) {
        ADD_LOG(kSnifferError, "Cannot attach filter: %s\n", std::strerror(errno));
        return UniqueFd();
    }
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    address.sll_ifindex = static_cast<int>(ifindex);
    if (bind(sock.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        ADD_LOG(kSnifferError, "bind call failed: %s", std::strerror(errno));
        return UniqueFd();
    }
    return sock;
}

// The gateway name N of every "lower_" entry in MASTER's sysfs directory that begins
// with PREFIX, in the sorted order a directory listing shows.
std::vector<std::string> lowerLinks(const char *master, std::string_view prefix) {
    std::vector<std::string> names;
    for (std::string &entry :
         os_kernel_dir_entries(("/sys/class/net/" + os_kernel_ifname(master)).c_str())) {
        std::string_view kernelName(entry);
        if (!kernelName.starts_with(kLowerLinkPrefix)) continue;
        kernelName.remove_prefix(kLowerLinkPrefix.size());
        std::string name = os_gateway_ifname(kernelName);
        if (name.starts_with(prefix) && name.size() <= kMonitorListNameMax)
            names.push_back(std::move(name));
    }
    std::sort(names.begin(), names.end());
    return names;
}

void receiveFrame(const sd_intf &record) {
    sockaddr_ll sender{};
    socklen_t senderLen = sizeof sender;
    // Not blocking: a stop is held off while the pass runs, and the descriptor may have
    // been closed and reused by a new port's socket during this pass's link-event read,
    // and then hold no frame.
    ssize_t length = recvfrom(record.sock, frameBuffer, sizeof frameBuffer, MSG_DONTWAIT,
                              reinterpret_cast<sockaddr *>(&sender), &senderLen);
    if (length < 1) {
        RECEIVE_LOG(kSnifferError, "Error to receive packet for sd(%d), len %d, errno %d\n",
                    record.sock, static_cast<int>(length), errno);
        return;
    }
    // The name lookup costs three system calls: only for a line that is printed.
    char arrival[IF_NAMESIZE] = {};
    if (snifferLogLevel() >= kSnifferProgress &&
        !if_indextoname(static_cast<unsigned>(sender.sll_ifindex), arrival))
        arrival[0] = '\0';
    RECEIVE_LOG(kSnifferProgress, "=== Receive packet SIZE %d PROTO 0x%04x IF %s TYPE %hhu ===\n",
                static_cast<int>(length), static_cast<unsigned>(ntohs(sender.sll_protocol)),
                arrival, sender.sll_pkttype);
    if (snifferLogLevel() >= kSnifferPacket) dump_packet(frameBuffer, static_cast<size_t>(length));
    parse_packet(frameBuffer, static_cast<size_t>(length));
}

// select() sets hold descriptors below FD_SETSIZE only; a socket above that is left
// out of the wait rather than written past the set.
bool fitsSelectSet(int fd) {
    return fd >= 0 && fd < FD_SETSIZE;
}

}  // namespace

void releaseMonitorListLockIfHeld() {
    // The sniffer thread is cancelled only in its wait, where it holds no lock, and
    // the unwinding releases scoped locks before the handler runs: this is the last
    // guard, should either ever change.
    if (!monitorListLockHeld) return;
    monitorListLockHeld = false;
    pthread_mutex_unlock(&monitorListMutex);
}

sd_intf *__add_monitor_intf(const char *ifname, const char *master) {
    sd_intf *masterRecord = nullptr;
    if (!mayAdd(ifname, master, masterRecord)) return nullptr;
    std::unique_ptr<sd_intf> record(new (std::nothrow) sd_intf{});
    if (!record) {
        ADD_LOG(kSnifferError, "Cannot allocate memory\n");
        return nullptr;
    }
    record->sock = -1;
    record->master = masterRecord;
    record->ifindex = if_nametoindex(os_kernel_ifname(ifname).c_str());
    if (record->ifindex == 0) {
        ADD_LOG(kSnifferError, "Cannot get interface(%s)\n", ifname);
        return nullptr;
    }
    std::snprintf(record->ifname, sizeof record->ifname, "%s", ifname);
    UniqueFd sock = openFilteredSocket(record->ifindex);
    if (!sock.valid()) return nullptr;
    record->sock = sock.release();
    TAILQ_INSERT_TAIL(&monitorList, record.get(), entries);
    ADD_LOG(kSnifferPacket, "Add monitor ifname %s(%u)\n", record->ifname, record->ifindex);
    return record.release();  // the list owns it until __del_monitor_intf
}

sd_intf *add_monitor_intf(const char *ifname, const char *master) {
    MonitorListLock lock;
    return __add_monitor_intf(ifname, master);
}

sd_intf *__find_monitor_intf(const char *ifname, const sd_intf *master) {
    sd_intf *record = nullptr;
    TAILQ_FOREACH(record, &monitorList, entries) {
        if (master && record->master == master) return record;
        if (ifname && std::strcmp(record->ifname, ifname) == 0) return record;
    }
    return nullptr;
}

sd_intf *find_monitor_intf(const char *ifname) {
    MonitorListLock lock;
    return __find_monitor_intf(ifname, nullptr);
}

int __del_monitor_intf(sd_intf *record) {
    while (sd_intf *port = __find_monitor_intf(nullptr, record)) __del_monitor_intf(port);
    UniqueFd(std::exchange(record->sock, -1)).reset();  // closed now
    TAILQ_REMOVE(&monitorList, record, entries);
    delete record;
    return 0;
}

int del_monitor_intf(sd_intf *record) {
    MonitorListLock lock;
    return __del_monitor_intf(record);
}

int del_all_monitor_intf() {
    MonitorListLock lock;
    while (sd_intf *record = TAILQ_FIRST(&monitorList)) __del_monitor_intf(record);
    return 0;
}

int add_lower_monitor_intf(const char *master, const char *prefix) {
    int added = 0;
    for (const std::string &name : lowerLinks(master, prefix ? prefix : ""))
        if (add_monitor_intf(name.c_str(), master)) ++added;
    return added;
}

int set_monitor_sd_set(fd_set *set) {
    MonitorListLock lock;
    int highest = -1;
    const sd_intf *record = nullptr;
    TAILQ_FOREACH(record, &monitorList, entries) {
        if (!fitsSelectSet(record->sock)) continue;
        FD_SET(record->sock, set);
        highest = std::max(highest, record->sock);
    }
    return highest;
}

int check_monitor_sd_set(const fd_set *set) {
    MonitorListLock lock;
    const sd_intf *record = nullptr;
    TAILQ_FOREACH(record, &monitorList, entries) {
        if (fitsSelectSet(record->sock) && FD_ISSET(record->sock, set)) receiveFrame(*record);
    }
    return 0;
}

int dump_monitor_intf() {
    MonitorListLock lock;
    logPlain("### Monitor Interface:\n");
    const sd_intf *record = nullptr;
    TAILQ_FOREACH(record, &monitorList, entries) {
        logPlain("    IF %s(%d) SOCK %d MASTER %s\n", record->ifname,
                 static_cast<int>(record->ifindex), record->sock,
                 record->master ? record->master->ifname : "NULL");
    }
    logPlain("\n");
    return 0;
}
