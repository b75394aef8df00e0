// nl80211 over generic netlink: resolve the family, ask for the interface's SSID and
// frequency and for its stations, decode the replies into station records.
#include "platform/linux/nl80211.h"

#include <linux/genetlink.h>
#include <linux/netlink.h>
#include <linux/nl80211.h>
#include <net/if.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string_view>

#include "core/netlink_walk.h"
#include "core/unique_fd.h"
#include "platform/linux/netlink_route.h"
#include "platform/linux/netlink_socket.h"
#include "platform/linux/wifi_stations.h"

namespace {

constexpr size_t kMacBytes = 6;
constexpr uint32_t kKbpsPerUnit = 100;  // nl80211 bitrates count 100 kbit/s
constexpr std::string_view kFamilyName = "nl80211";
// Channel frequencies of the bands; 6 GHz stations at legacy rates use the 5 GHz ones.
constexpr uint32_t kBand2GhzFirstMhz = 2400;
constexpr uint32_t kBand2GhzLastMhz = 2500;
constexpr uint32_t kBand5GhzFirstMhz = 4900;
constexpr uint32_t kBand6GhzLastMhz = 7125;

// --- pure decoding ---

struct NlMessage {
    uint16_t type;
    uint32_t seq;
    std::span<const uint8_t> payload;
};

struct NlAttribute {
    uint16_t type;
    std::span<const uint8_t> payload;
};

// nl80211 chunks end where their last message ends: any byte left over, even too few
// for a header, makes a chunk malformed, and the same goes for attributes.
template <typename Visit>
bool forEachMessage(std::span<const uint8_t> bytes, Visit visit) {
    return netlink::forEachMessage(bytes, [&](const nlmsghdr *message) {
               return visit(
                   NlMessage{message->nlmsg_type, message->nlmsg_seq, netlink::payloadOf(message)});
           }) == 0;
}

template <typename Visit>
bool forEachAttribute(std::span<const uint8_t> bytes, Visit visit) {
    return netlink::forEachAttribute(bytes, [&](const nlattr *attr) {
               return visit(NlAttribute{mnl_attr_get_type(attr), netlink::payloadOf(attr)});
           }) == 0;
}

template <typename T>
bool readValue(std::span<const uint8_t> payload, T &value) {
    if (payload.size() < sizeof value) return false;
    std::memcpy(&value, payload.data(), sizeof value);
    return true;
}

// The error code of an NLMSG_ERROR or NLMSG_DONE payload; a short one counts as failed.
int errorCode(std::span<const uint8_t> payload) {
    int code = -EPROTO;
    return readValue(payload, code) ? code : -EPROTO;
}

// The generic-netlink command of PAYLOAD, or -1, and the attributes after its header.
int genlCommand(std::span<const uint8_t> payload, std::span<const uint8_t> &attributes) {
    genlmsghdr header;
    if (!readValue(payload, header)) return -1;
    attributes = payload.subspan(GENL_HDRLEN);
    return header.cmd;
}

int familyIdOf(std::span<const uint8_t> attributes) {
    uint16_t id = 0;
    bool whole = forEachAttribute(attributes, [&](const NlAttribute &attribute) {
        if (attribute.type == CTRL_ATTR_FAMILY_ID) (void)readValue(attribute.payload, id);
        return true;
    });
    return whole && id != 0 ? id : -1;
}

bool endsAnswer(uint16_t type) {
    return type == NLMSG_ERROR || type == NLMSG_DONE || type == NLMSG_OVERRUN;
}

// The family id of MESSAGE, 0 when it is no family answer, -1 for an answer without one.
int familyMessage(const NlMessage &message) {
    if (endsAnswer(message.type)) return -1;  // an error, or an end before any answer
    std::span<const uint8_t> attributes;
    if (message.type != GENL_ID_CTRL) return 0;
    if (genlCommand(message.payload, attributes) != CTRL_CMD_NEWFAMILY) return 0;
    return familyIdOf(attributes);
}

// Wi-Fi generations in order, so that the newer of two is the larger.
enum class PhyMode { Unknown, Legacy, Ht, Vht, He, Eht };

// Legacy rates are OFDM "a" on 5 and 6 GHz, "g" on 2.4 GHz; unknown elsewhere.
const char *legacyText(uint32_t frequencyMhz) {
    if (frequencyMhz >= kBand2GhzFirstMhz && frequencyMhz <= kBand2GhzLastMhz) return "g";
    if (frequencyMhz >= kBand5GhzFirstMhz && frequencyMhz <= kBand6GhzLastMhz) return "a";
    return "";
}

const char *modeText(PhyMode mode, uint32_t frequencyMhz) {
    switch (mode) {
        case PhyMode::Unknown:
            return "";
        case PhyMode::Legacy:
            return legacyText(frequencyMhz);
        case PhyMode::Ht:
            return "n";
        case PhyMode::Vht:
            return "ac";
        case PhyMode::He:
            return "ax";
        case PhyMode::Eht:
            return "be";
    }
    return "";
}

struct RateInfo {
    uint32_t kbps = 0;
    bool have32 = false;  // the 32-bit rate wins over the 16-bit one
    PhyMode mode = PhyMode::Unknown;
};

uint32_t unitsToKbps(uint32_t units) {
    return units > UINT32_MAX / kKbpsPerUnit ? UINT32_MAX : units * kKbpsPerUnit;
}

PhyMode modeOfRateAttribute(uint16_t type) {
    if (type == NL80211_RATE_INFO_EHT_MCS) return PhyMode::Eht;
    if (type == NL80211_RATE_INFO_HE_MCS) return PhyMode::He;
    if (type == NL80211_RATE_INFO_VHT_MCS) return PhyMode::Vht;
    if (type == NL80211_RATE_INFO_MCS) return PhyMode::Ht;
    return PhyMode::Legacy;
}

void applyRateAttribute(const NlAttribute &attribute, RateInfo &rate) {
    rate.mode = std::max(rate.mode, modeOfRateAttribute(attribute.type));
    uint32_t rate32 = 0;
    uint16_t rate16 = 0;
    if (attribute.type == NL80211_RATE_INFO_BITRATE32 && readValue(attribute.payload, rate32)) {
        rate.kbps = unitsToKbps(rate32);
        rate.have32 = true;
    }
    if (attribute.type == NL80211_RATE_INFO_BITRATE && !rate.have32 &&
        readValue(attribute.payload, rate16))
        rate.kbps = unitsToKbps(rate16);
}

bool decodeRate(std::span<const uint8_t> nested, RateInfo &rate) {
    rate.mode = std::max(rate.mode, PhyMode::Legacy);  // a rate without MCS is a legacy one
    return forEachAttribute(nested, [&](const NlAttribute &attribute) {
        applyRateAttribute(attribute, rate);
        return true;
    });
}

// A flag the kernel reports (in the mask) must be set; one it leaves out does not count.
bool flagHolds(const nl80211_sta_flag_update &update, int flag) {
    uint32_t bit = 1u << flag;
    return !(update.mask & bit) || (update.set & bit);
}

bool associatedOf(std::span<const uint8_t> payload) {
    nl80211_sta_flag_update update{};
    if (!readValue(payload, update)) return true;
    return flagHolds(update, NL80211_STA_FLAG_ASSOCIATED) &&
           flagHolds(update, NL80211_STA_FLAG_AUTHORIZED);
}

struct StationInfo {
    RateInfo rx, tx;
    bool associated = true;  // a station the kernel lists is associated unless its flags say not
};

bool applyStaInfoAttribute(const NlAttribute &attribute, StationInfo &info, wlStaInfo &station) {
    int8_t dbm = 0;
    switch (attribute.type) {
        case NL80211_STA_INFO_SIGNAL:
            if (readValue(attribute.payload, dbm)) station.signal = stationSignalByte(dbm);
            return true;
        case NL80211_STA_INFO_RX_BITRATE:
            return decodeRate(attribute.payload, info.rx);
        case NL80211_STA_INFO_TX_BITRATE:
            return decodeRate(attribute.payload, info.tx);
        case NL80211_STA_INFO_STA_FLAGS:
            info.associated = associatedOf(attribute.payload);
            return true;
        default:
            return true;  // the many other counters are not needed
    }
}

bool decodeStaInfo(std::span<const uint8_t> nested, uint32_t frequencyMhz, wlStaInfo &station) {
    StationInfo info;
    bool good = true;
    bool whole = forEachAttribute(nested, [&](const NlAttribute &attribute) {
        good = applyStaInfoAttribute(attribute, info, station);
        return good;
    });
    station.rxRateKbps = info.rx.kbps;
    station.txRateKbps = info.tx.kbps;
    // Either direction proves what was negotiated; one frame sent at a lower rate does not undo it.
    const char *mode = modeText(std::max(info.rx.mode, info.tx.mode), frequencyMhz);
    std::memcpy(station.mode, mode, std::strlen(mode) + 1);
    station.flags = info.associated ? kStaAssociated : 0;
    return whole && good;
}

NlDumpState stationMessage(const NlMessage &message, uint16_t family, StationCollector &out) {
    if (message.type == NLMSG_DONE) {
        bool failed = message.payload.size() >= sizeof(int) && errorCode(message.payload) < 0;
        return failed ? NlDumpState::Failed : NlDumpState::Done;
    }
    if (message.type == NLMSG_ERROR)
        return errorCode(message.payload) == 0 ? NlDumpState::Done : NlDumpState::Failed;
    if (message.type == NLMSG_OVERRUN) return NlDumpState::Failed;
    std::span<const uint8_t> attributes;
    if (message.type != family ||
        genlCommand(message.payload, attributes) != NL80211_CMD_NEW_STATION)
        return NlDumpState::More;
    wlStaInfo station{};
    if (out.count < out.slots.size() && nl80211DecodeStation(attributes, out.frequencyMhz, station))
        out.slots[out.count++] = station;
    return NlDumpState::More;
}

void applyInterfaceAttribute(const NlAttribute &attribute, Nl80211Interface &out) {
    if (attribute.type == NL80211_ATTR_WIPHY_FREQ)
        (void)readValue(attribute.payload, out.frequencyMhz);
    if (attribute.type != NL80211_ATTR_SSID) return;
    size_t length = std::min(attribute.payload.size(), kNl80211MaxSsidBytes);
    std::memcpy(out.ssid, attribute.payload.data(), length);
    out.ssid[length] = '\0';
}

// 1 when MESSAGE answers the interface request, 0 when it is no answer, -1 for an error.
int interfaceMessage(const NlMessage &message, uint16_t family, Nl80211Interface &out) {
    if (endsAnswer(message.type)) return -1;
    std::span<const uint8_t> attributes;
    if (message.type != family ||
        genlCommand(message.payload, attributes) != NL80211_CMD_NEW_INTERFACE)
        return 0;
    return nl80211DecodeInterface(attributes, out) ? 1 : -1;
}

// The verdict of ANSWER on the first message of SEQ that gives one; 0 when none
// does, -1 when a length is bad.
template <typename Answer>
int firstAnswer(std::span<const uint8_t> bytes, uint32_t seq, Answer answer) {
    int verdict = 0;
    bool whole = forEachMessage(bytes, [&](const NlMessage &message) {
        if (message.seq != seq) return true;
        verdict = answer(message);
        return verdict == 0;
    });
    return whole ? verdict : -1;
}

}  // namespace

int nl80211DecodeFamilyReply(std::span<const uint8_t> bytes, uint32_t seq) {
    return firstAnswer(bytes, seq, familyMessage);
}

bool nl80211DecodeInterface(std::span<const uint8_t> attributes, Nl80211Interface &out) {
    Nl80211Interface iface;
    bool whole = forEachAttribute(attributes, [&](const NlAttribute &attribute) {
        applyInterfaceAttribute(attribute, iface);
        return true;
    });
    if (whole) out = iface;
    return whole;
}

int nl80211DecodeInterfaceReply(std::span<const uint8_t> bytes, uint32_t seq, uint16_t family,
                                Nl80211Interface &out) {
    return firstAnswer(bytes, seq, [&](const NlMessage &message) {
        return interfaceMessage(message, family, out);
    });
}

bool nl80211DecodeStation(std::span<const uint8_t> attributes, uint32_t frequencyMhz,
                          wlStaInfo &out) {
    wlStaInfo station{};
    station.flags = kStaAssociated;  // the kernel lists associated stations
    bool haveMac = false, good = true;
    bool whole = forEachAttribute(attributes, [&](const NlAttribute &attribute) {
        if (attribute.type == NL80211_ATTR_MAC && attribute.payload.size() == kMacBytes) {
            std::memcpy(station.mac, attribute.payload.data(), kMacBytes);
            haveMac = true;
        }
        if (attribute.type == NL80211_ATTR_STA_INFO)
            good = decodeStaInfo(attribute.payload, frequencyMhz, station);
        return good;
    });
    if (!whole || !good || !haveMac) return false;
    station.inUse = 1;
    out = station;
    return true;
}

NlDumpState nl80211DecodeStationDump(std::span<const uint8_t> bytes, uint32_t seq, uint16_t family,
                                     StationCollector &out) {
    NlDumpState state = NlDumpState::More;
    bool whole = forEachMessage(bytes, [&](const NlMessage &message) {
        if (message.seq != seq) return true;
        state = stationMessage(message, family, out);
        return state == NlDumpState::More;
    });
    return whole ? state : NlDumpState::Failed;
}

// --- the socket ---

namespace {

constexpr size_t kReceiveBytes = 32768;  // the largest chunk the kernel sends a dump in
constexpr int kMaxReceives = 64;         // chunks of one answer; 64 stations fit in a few
constexpr uint8_t kGenlVersion = 1;

using ReceiveBuffer = std::array<uint8_t, kReceiveBytes>;

uint32_t nextSequence() {
    static std::atomic<uint32_t> sequence{0};
    return ++sequence;
}

NetlinkRequest genlRequest(uint16_t family, uint16_t flags, uint8_t command) {
    NetlinkRequest request(family, flags);
    request.body(genlmsghdr{command, kGenlVersion, 0});
    return request;
}

// One datagram from the kernel; its bytes, or an empty span on error, timeout,
// truncation or a sender other than the kernel.
std::span<const uint8_t> receiveChunk(int fd, ReceiveBuffer &buffer) {
    sockaddr_nl from{};
    socklen_t fromSize = sizeof from;
    ssize_t got;
    do {
        got = recvfrom(fd, buffer.data(), buffer.size(), MSG_TRUNC,
                       reinterpret_cast<sockaddr *>(&from), &fromSize);
    } while (got < 0 && errno == EINTR);
    if (got <= 0 || static_cast<size_t>(got) > buffer.size() || from.nl_pid != 0) return {};
    return std::span<const uint8_t>(buffer.data(), static_cast<size_t>(got));
}

// Receives chunks until DECODE gives a verdict other than 0; -1 when none comes.
template <typename Decode>
int receiveUntil(int fd, ReceiveBuffer &buffer, Decode decode) {
    for (int i = 0; i < kMaxReceives; ++i) {
        std::span<const uint8_t> chunk = receiveChunk(fd, buffer);
        if (chunk.empty()) return -1;
        if (int verdict = decode(chunk); verdict != 0) return verdict;
    }
    return -1;
}

int resolveFamily(const UniqueFd &sock, ReceiveBuffer &buffer) {
    uint32_t seq = nextSequence();
    NetlinkRequest request = genlRequest(GENL_ID_CTRL, 0, CTRL_CMD_GETFAMILY);
    request.attribute(CTRL_ATTR_FAMILY_NAME, kFamilyName.data(), kFamilyName.size() + 1);
    if (!sendRouteRequest(sock, request.finish(seq, 0))) return -1;
    return receiveUntil(sock.get(), buffer, [seq](std::span<const uint8_t> chunk) {
        return nl80211DecodeFamilyReply(chunk, seq);
    });
}

// A socket that has found the nl80211 family, and the interface asked about.
struct Session {
    UniqueFd sock;
    uint16_t family = 0;
    uint32_t ifindex = 0;
    alignas(nlmsghdr) ReceiveBuffer buffer;
};

bool openSession(const char *ifname, Session &session) {
    session.ifindex = ifname ? if_nametoindex(ifname) : 0;
    if (session.ifindex == 0) return false;
    session.sock = openKernelNetlinkSocket(NETLINK_GENERIC);
    if (!session.sock.valid()) return false;
    int family = resolveFamily(session.sock, session.buffer);
    if (family <= 0 || family > UINT16_MAX) return false;
    session.family = static_cast<uint16_t>(family);
    return true;
}

// Sends COMMAND about the session's interface as request SEQ.
bool askAboutInterface(const Session &session, uint8_t command, uint16_t flags, uint32_t seq) {
    NetlinkRequest request = genlRequest(session.family, flags, command);
    request.attribute(NL80211_ATTR_IFINDEX, &session.ifindex, sizeof session.ifindex);
    return sendRouteRequest(session.sock, request.finish(seq, 0));
}

int queryInterface(Session &session, Nl80211Interface &out) {
    uint32_t seq = nextSequence();
    if (!askAboutInterface(session, NL80211_CMD_GET_INTERFACE, 0, seq)) return -1;
    int verdict =
        receiveUntil(session.sock.get(), session.buffer, [&](std::span<const uint8_t> chunk) {
            return nl80211DecodeInterfaceReply(chunk, seq, session.family, out);
        });
    return verdict == 1 ? 0 : -1;
}

// 1 once the dump has ended or the room is full (the rest would be dropped), -1 on
// failure, 0 while more is to come.
int dumpVerdict(NlDumpState state, const StationCollector &out) {
    if (state == NlDumpState::Failed) return -1;
    bool full = out.count == out.slots.size();
    return state == NlDumpState::Done || full ? 1 : 0;
}

int dumpStations(Session &session, StationCollector &out) {
    uint32_t seq = nextSequence();
    if (!askAboutInterface(session, NL80211_CMD_GET_STATION, NLM_F_DUMP, seq)) return -1;
    int verdict =
        receiveUntil(session.sock.get(), session.buffer, [&](std::span<const uint8_t> chunk) {
            return dumpVerdict(nl80211DecodeStationDump(chunk, seq, session.family, out), out);
        });
    return verdict == 1 ? static_cast<int>(out.count) : -1;
}

}  // namespace

int nl80211ReadInterface(const char *ifname, Nl80211Interface &out) {
    Session session;
    return openSession(ifname, session) ? queryInterface(session, out) : -1;
}

// A radio that cannot say its frequency still lists its stations; only the legacy
// ones then have no mode.
int nl80211ReadStations(const char *ifname, Nl80211Interface &iface, std::span<wlStaInfo> out) {
    iface = Nl80211Interface{};
    Session session;
    if (!openSession(ifname, session)) return -1;
    if (queryInterface(session, iface) != 0) iface = Nl80211Interface{};
    StationCollector collector{out, iface.frequencyMhz};
    return dumpStations(session, collector);
}
