// The forwarding database of the LAN bridge "br0", from an rtnetlink neighbour dump of
// family AF_BRIDGE or, when that fails, from the bridge's "brforward" sysfs file.
//
// The decoders are pure: they read only the span they are given and check every
// length in it. Ages are hundredths of a second: the kernel reports them in clock
// ticks of USER_HZ = 100 in both sources, so they are taken as they come.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "platform/linux/netlink_route.h"
#include "platform/mib.h"

inline constexpr char kFdbBridgeName[] = "br0";
// Entries kept from one read; a home bridge has a few hundred at most.
inline constexpr size_t kMaxFdbRecords = 4096;
inline constexpr size_t kFdbMacBytes = 6;
// One record of the brforward file (struct __fdb_entry).
inline constexpr size_t kBrforwardRecordBytes = 16;

// One forwarding entry as a source gives it, before the port is named.
struct FdbRecord {
    uint8_t mac[kFdbMacBytes] = {};
    bool isLocal = false;  // an address of the bridge or of one of its ports
    uint32_t ageing = 0;   // hundredths of a second since the bridge last saw it
    uint16_t vid = 0;
    int ifindex = 0;      // from the dump: the port, or the bridge for its own entries
    unsigned portNo = 0;  // from brforward: the bridge port number
};

using FdbDumpStatus = RouteDumpStatus;

// Decodes one datagram of a neighbour dump, appending the forwarding entries whose
// master is the bridge BRIDGE_INDEX (or that belong to the bridge device itself) to
// RECORDS, at most kMaxFdbRecords in all. Messages of another sequence number, other
// families, the devices' own "self" entries and multicast or zero MACs are skipped.
FdbDumpStatus decodeBridgeFdbMessages(std::span<const uint8_t> datagram, int bridgeIndex,
                                      uint32_t sequence, std::vector<FdbRecord> &records);

// Decodes the brforward file's records; a partial record at the end is ignored.
void decodeBrforward(std::span<const uint8_t> bytes, std::vector<FdbRecord> &records);

// The brforward source alone, port names from brif/*/port_no; the same result
// convention as collect_bridge_fdb.
int collectBridgeFdbFromSysfs(fdb **head);
