// Short exchanges with the kernel's routing netlink (NETLINK_ROUTE) for the backend:
// requests answered by an acknowledgement, and dumps read datagram by datagram.
// The message walker and the acknowledgement decoder are pure: they read only the span
// they are given and check every length in it.
#pragma once

#include <libmnl/libmnl.h>
#include <linux/netlink.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <span>
#include <vector>

#include "core/unique_fd.h"

enum class RouteDumpStatus {
    More,   // every message read, the dump goes on in the next datagram
    Done,   // the dump ended
    Failed  // an error report, a malformed message or an aborted dump
};

inline constexpr size_t kNetlinkRequestBytes = 256;  // header, body and a few attributes

// One request, built in place by libmnl: the netlink header, a fixed body, then
// attributes. The sequence number is filled in when it is sent.
class NetlinkRequest {
   public:
    NetlinkRequest(uint16_t type, uint16_t flags);
    template <typename T>
    void body(const T &value) {
        static_assert(MNL_NLMSG_HDRLEN + MNL_ALIGN(sizeof value) <= kNetlinkRequestBytes);
        std::memcpy(mnl_nlmsg_put_extra_header(header(), sizeof value), &value, sizeof value);
    }
    void attribute(uint16_t type, const void *data, size_t size);
    // The finished message, with SEQUENCE and EXTRA_FLAGS (NLM_F_ACK) in its header;
    // empty when an attribute did not fit.
    std::span<const uint8_t> finish(uint32_t sequence, uint16_t extraFlags);

   private:
    nlmsghdr *header() { return reinterpret_cast<nlmsghdr *>(bytes_); }
    alignas(nlmsghdr) uint8_t bytes_[kNetlinkRequestBytes] = {};
    bool overflowed_ = false;
};

// A close-on-exec route socket with a short receive timeout; invalid on failure.
UniqueFd openRouteSocket();
// A sequence number not used before by this process's route requests.
uint32_t nextRouteSequence();

// False for an empty MESSAGE, as a request that did not fit is.
bool sendRouteRequest(const UniqueFd &sock, std::span<const uint8_t> message);
// Asks for every neighbour entry of FAMILY (AF_INET, AF_INET6, AF_BRIDGE).
bool requestNeighDump(const UniqueFd &sock, uint32_t sequence, uint8_t family);

// The next datagram into BUFFER, grown first when it would not fit: its length, 0 for
// one that did not come from the kernel, -1 on failure or timeout.
ssize_t receiveRouteDatagram(const UniqueFd &sock, std::vector<uint8_t> &buffer);

// Told the type and payload of each message of the dump.
using RouteMessageVisitor = std::function<void(uint16_t type, std::span<const uint8_t> payload)>;

// Hands VISIT every message of DATAGRAM that carries SEQUENCE, up to the end of the dump.
RouteDumpStatus walkRouteDatagram(std::span<const uint8_t> datagram, uint32_t sequence,
                                  const RouteMessageVisitor &visit);
// Decodes one datagram of a dump.
using RouteDatagramDecoder = std::function<RouteDumpStatus(std::span<const uint8_t> datagram)>;
// Hands DECODE each datagram of a dump until it says Done; false when the dump could
// not be read to its end.
bool readRouteDump(const UniqueFd &sock, const RouteDatagramDecoder &decode);

inline constexpr int kNoRouteAck = -1;
// The answer to request SEQUENCE in DATAGRAM: 0 for success, the positive errno of a
// refusal, or kNoRouteAck when the datagram holds none (or is malformed).
int decodeRouteAck(std::span<const uint8_t> datagram, uint32_t sequence);
// Sends REQUEST asking for an acknowledgement and waits for it: 0 or an errno.
int routeTransact(const UniqueFd &sock, NetlinkRequest &request);
