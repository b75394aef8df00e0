// Configuration-store library: settings, interface data, forwarding database, DHCP
// leases, Wi-Fi station lists, shell runner and file lock. Defined by one backend,
// chosen at link time (linux for the daemon, fake for the unit tests).
#pragma once

#include <cstddef>
#include <cstdint>

// Bridge forwarding entry. The 16 bytes after the link pointer (8..23 on a 64-bit
// box, 4..19 on a 32-bit one) follow the Linux bridge's __fdb_entry (MAC, port
// number, local flag, ageing timer, port high byte, pad, VLAN id).
struct fdb {
    fdb *next;
    uint8_t mac[6];
    uint8_t port_no;
    uint8_t is_local;
    uint32_t ageing_timer_value;  // hundredths of a second since last seen
    uint8_t port_hi;
    uint8_t pad0;
    uint16_t vid;
    char brname[17];
    char ifname[23];
};
static_assert(offsetof(fdb, mac) == sizeof(fdb *));
static_assert(offsetof(fdb, is_local) == sizeof(fdb *) + 7);
static_assert(offsetof(fdb, ageing_timer_value) == sizeof(fdb *) + 8);
static_assert(offsetof(fdb, vid) == sizeof(fdb *) + 14);
static_assert(offsetof(fdb, ifname) == sizeof(fdb *) + 33);

// One DHCP lease as the library lays it out: 100 bytes.
inline constexpr size_t kDhcpLeaseSize = 100;
struct dhcp_lease {
    uint8_t mac[6];
    uint8_t reserved0[10];
    uint32_t ip;         // network byte order
    uint32_t leaseTime;  // remaining seconds, network byte order
    uint8_t reserved1[4];
    char hostname[72];
};
static_assert(sizeof(dhcp_lease) == kDhcpLeaseSize);
static_assert(offsetof(dhcp_lease, ip) == 16);
static_assert(offsetof(dhcp_lease, leaseTime) == 20);
static_assert(offsetof(dhcp_lease, hostname) == 28);

// Wi-Fi station record: 149 bytes, packed; the rest of it is opaque to the daemon.
inline constexpr size_t kWlStaInfoSize = 149;
inline constexpr size_t kMaxStaNum = 65;  // records in one getWlStaInfo buffer
#pragma pack(push, 1)
struct wlStaInfo {
    uint16_t inUse;
    uint8_t mac[6];
    uint8_t reserved0[8];
    uint16_t flags;  // bit 0x0004: associated
    // Opaque to the daemon; the linux backend keeps the rates and mode it reports here.
    uint32_t rxRateKbps;
    uint32_t txRateKbps;
    char mode[9];
    uint8_t reserved1[73];
    uint8_t signal;  // rssi = signal - 100
    uint8_t reserved2[40];
};
#pragma pack(pop)
static_assert(sizeof(wlStaInfo) == kWlStaInfoSize);
static_assert(offsetof(wlStaInfo, mac) == 2);
static_assert(offsetof(wlStaInfo, flags) == 16);
static_assert(offsetof(wlStaInfo, signal) == 108);
inline constexpr uint16_t kStaAssociated = 0x0004;

// WLAN configuration record filled by mib_chain_get_wlan: 468 bytes, SSID at 220.
inline constexpr size_t kWlanConfigSize = 468;
inline constexpr size_t kWlanConfigSsidOffset = 220;

// Configuration chain of WAN connections; its records are 1060 bytes.
inline constexpr int kChainWanConnections = 3004;
inline constexpr size_t kChainRecordSize = 1060;
inline constexpr size_t kChainEnableOffset = 239;
inline constexpr size_t kChainModeOffset = 22;
inline constexpr size_t kChainPortMaskOffset = 261;

// Interface-address types for getInAddr.
inline constexpr int IP_ADDR = 0;

// flock_set lock types.
inline constexpr int kLockWrite = 1;
inline constexpr int kLockUnlock = 2;

// Ethernet LAN ports 1..4 and the two radio roots.
inline constexpr int kLanPortCount = 4;
inline constexpr int kWlanRootCount = 2;
extern const char *ELANRIF[];
extern const char *WLANIF[];

int mib_get_s(int id, void *buffer, int width);
int mib_chain_total(int chain);
int mib_chain_get(int chain, unsigned int index, void *buffer);
int mib_chain_get_wlan(const char *ifname, void *record, int *index);

int getInAddr(const char *ifname, int type, void *buffer);
int getMacAddr(const char *ifname, unsigned char *buffer);
int getInFlags(const char *ifname, int *flags);
int getWlStaInfo(const char *ifname, void *buffer);

int collect_bridge_fdb(fdb **head);
void free_bridge_fdb(fdb **head);
// A zeroed node for collect_bridge_fdb's list (null when memory is short); the list's
// nodes go back through free_bridge_fdb, which keeps them for the next cycle.
fdb *newFdbNode();

// The next settings read sees the store as it is now; between such calls a store
// kept in a file may be checked for changes only once a second.
void mib_refresh();

int getDhcpClientLeasesDB(dhcp_lease **array, unsigned long *aux);
// 1 when the lease database changed since getDhcpClientLeasesDB last read it.
int isDhcpClientLeasesDBChanged();
void getDhcpClientInfo(dhcp_lease *array, int count, const unsigned char *mac, dhcp_lease **record);

int isTimeSynchronized();
int convertMacFormat(const char *text, unsigned char *out);
int isZeroMac(const unsigned char *mac);
int macAddrCmp(const void *a, const void *b);

// Runs PROGRAM with ARGC string arguments; WAIT 1 waits for it to finish.
int va_cmd(const char *program, int argc, int wait, ...);
int va_cmd_no_error(const char *program, int argc, int wait, ...);

int flock_set(int fd, int type);
// flock_set without waiting: -1 at once when another process holds a conflicting lock.
int flock_try_set(int fd, int type);
