// The LAN host record (the one type that leaves the daemon: host file and control
// replies, 944 bytes at fixed offsets) and the table entry that embeds it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>

inline constexpr size_t kMacLen = 6;
inline constexpr size_t kHostTextLen = 64;
inline constexpr size_t kLanHostInfoSize = 944;
inline constexpr size_t kIpv6Len = 16;

enum : uint8_t { CONNECTION_WIRED = 0, CONNECTION_WIRELESS = 1 };

enum : uint32_t {
    LANHOST_IP_SOURCE_NONE = 0,
    LANHOST_IP_SOURCE_ARP = 1,
    LANHOST_IP_SOURCE_DHCP = 2,
    LANHOST_IP_SOURCE_SNIFFER = 3,
};

enum : uint32_t {
    DHCP_CLIENT_NONE = 0,
    DHCP_CLIENT_FOUND = 1,
    DHCP_CLIENT_RELEASED = 2,
    DHCP_CLIENT_NOTIFIED = 3,
};

inline constexpr uint8_t kInternetAccessBlocked = 0;
inline constexpr uint8_t kInternetAccessDefault = 2;
inline constexpr uint8_t kOtherAccessDefault = 1;
inline constexpr const char *kUnknownProfile = "OTHER";  // brand, model, os of a new host

struct lanHostInfo_t {
    uint8_t mac[kMacLen];
    uint8_t agentMac[kMacLen];
    char devName[kHostTextLen];
    uint8_t devType;
    uint8_t pad0[3];
    uint32_t ip;  // network byte order
    uint8_t reserved1[120];
    uint8_t ipv6[16];
    uint8_t connectionType;
    uint8_t port;
    uint8_t phy_port;
    char ifName[kHostTextLen];
    char brand[kHostTextLen];
    char model[kHostTextLen];
    char os[kHostTextLen];
    uint8_t reserved2[129];
    uint32_t onLineTime;
    uint32_t upRate;
    uint32_t downRate;
    uint8_t pad1[4];
    uint64_t rxBytes;
    uint64_t txBytes;
    uint8_t firstConnect;
    uint8_t disConnect;
    uint8_t latestActiveTimeSynced;
    char latestActiveTime[kHostTextLen];
    char disConnectTime[kHostTextLen];
    uint8_t controlled;
    uint8_t internetAccess;
    uint8_t otherAccess;
    uint8_t pad2[2];
    uint32_t rx_packets;
    uint32_t tx_packets;
    uint32_t rx_errors;
    uint32_t rx_dropped;
    uint32_t reserved3;
    uint8_t offline;
    uint8_t reserved4[11];
    uint8_t dhcpLeaseFound;
    uint8_t pad3[3];
    uint32_t arpReqIp;  // network byte order
    uint32_t arpRetryCnt;
    uint32_t dhcpClientState;
    uint32_t ipSource;
    uint8_t firstGotIP;
    uint8_t isWifi;
    uint8_t wifiAttr;
    char wirelessMode[9];
    char negRxRate[17];
    char negTxRate[17];
    char ssidName[66];
    int32_t rssi;
};

static_assert(sizeof(lanHostInfo_t) == kLanHostInfoSize);
static_assert(offsetof(lanHostInfo_t, mac) == 0);
static_assert(offsetof(lanHostInfo_t, agentMac) == 6);
static_assert(offsetof(lanHostInfo_t, devName) == 12);
static_assert(offsetof(lanHostInfo_t, devType) == 76);
static_assert(offsetof(lanHostInfo_t, ip) == 80);
static_assert(offsetof(lanHostInfo_t, reserved1) == 84);
static_assert(offsetof(lanHostInfo_t, ipv6) == 204);
static_assert(offsetof(lanHostInfo_t, connectionType) == 220);
static_assert(offsetof(lanHostInfo_t, port) == 221);
static_assert(offsetof(lanHostInfo_t, phy_port) == 222);
static_assert(offsetof(lanHostInfo_t, ifName) == 223);
static_assert(offsetof(lanHostInfo_t, brand) == 287);
static_assert(offsetof(lanHostInfo_t, model) == 351);
static_assert(offsetof(lanHostInfo_t, os) == 415);
static_assert(offsetof(lanHostInfo_t, reserved2) == 479);
static_assert(offsetof(lanHostInfo_t, onLineTime) == 608);
static_assert(offsetof(lanHostInfo_t, upRate) == 612);
static_assert(offsetof(lanHostInfo_t, downRate) == 616);
static_assert(offsetof(lanHostInfo_t, rxBytes) == 624);
static_assert(offsetof(lanHostInfo_t, txBytes) == 632);
static_assert(offsetof(lanHostInfo_t, firstConnect) == 640);
static_assert(offsetof(lanHostInfo_t, disConnect) == 641);
static_assert(offsetof(lanHostInfo_t, latestActiveTimeSynced) == 642);
static_assert(offsetof(lanHostInfo_t, latestActiveTime) == 643);
static_assert(offsetof(lanHostInfo_t, disConnectTime) == 707);
static_assert(offsetof(lanHostInfo_t, controlled) == 771);
static_assert(offsetof(lanHostInfo_t, internetAccess) == 772);
static_assert(offsetof(lanHostInfo_t, otherAccess) == 773);
static_assert(offsetof(lanHostInfo_t, rx_packets) == 776);
static_assert(offsetof(lanHostInfo_t, tx_packets) == 780);
static_assert(offsetof(lanHostInfo_t, rx_errors) == 784);
static_assert(offsetof(lanHostInfo_t, rx_dropped) == 788);
static_assert(offsetof(lanHostInfo_t, reserved3) == 792);
static_assert(offsetof(lanHostInfo_t, offline) == 796);
static_assert(offsetof(lanHostInfo_t, dhcpLeaseFound) == 808);
static_assert(offsetof(lanHostInfo_t, arpReqIp) == 812);
static_assert(offsetof(lanHostInfo_t, arpRetryCnt) == 816);
static_assert(offsetof(lanHostInfo_t, dhcpClientState) == 820);
static_assert(offsetof(lanHostInfo_t, ipSource) == 824);
static_assert(offsetof(lanHostInfo_t, firstGotIP) == 828);
static_assert(offsetof(lanHostInfo_t, isWifi) == 829);
static_assert(offsetof(lanHostInfo_t, wifiAttr) == 830);
static_assert(offsetof(lanHostInfo_t, wirelessMode) == 831);
static_assert(offsetof(lanHostInfo_t, negRxRate) == 840);
static_assert(offsetof(lanHostInfo_t, negTxRate) == 857);
static_assert(offsetof(lanHostInfo_t, ssidName) == 874);
static_assert(offsetof(lanHostInfo_t, rssi) == 940);

// One slot of the host table; the record comes first so that a pointer to the
// entry is also a pointer to its record and to its MAC.
struct hostEntry {
    lanHostInfo_t lanHost;
    uint32_t idleSecs;     // forwarding-database idle time, seconds
    uint32_t startOnLine;  // monotonic second the host came online; 0 = not online
    uint32_t updateTime;   // monotonic second discovery last confirmed the host
    int8_t phyPortId;
    uint8_t informChange;
    int8_t valid;
    uint32_t arpReqTime;  // monotonic second of the last ARP request
    hostEntry *next;      // hash chain or free list
};
static_assert(offsetof(hostEntry, lanHost) == 0);

// A MAC as one number, for hashed lookups.
inline uint64_t macKey(const uint8_t *mac) {
    // Two loads of the MAC's own width: a six-byte copy into a wider variable would
    // stall the load that reads it back, on every lookup of a cycle.
    uint32_t low = 0;
    uint16_t high = 0;
    std::memcpy(&low, mac, sizeof low);
    std::memcpy(&high, mac + sizeof low, sizeof high);
    return uint64_t{low} | uint64_t{high} << 32;
}

// An IPv6 address of all zero bytes means none.
inline bool isZeroIpv6(const uint8_t *addr) {
    for (size_t i = 0; i < kIpv6Len; ++i)
        if (addr[i] != 0) return false;
    return true;
}

// Local time as "year:month:day:hour:minute:second" without zero padding.
void formatHostTime(char (&text)[kHostTextLen], time_t when);
