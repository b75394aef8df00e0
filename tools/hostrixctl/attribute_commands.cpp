// get, set, port-down, release and log: one request each.
#include <cstdio>
#include <optional>

#include "client.h"
#include "commands.h"
#include "format.h"
#include "protocol.h"

namespace {

enum class GetShape { HostNumber, HostAccess, HostText, HostName, Global };
enum class SetShape { HostNumber, HostAccess, HostText, Global };

struct Getter {
    std::string_view name;
    GetShape shape;
    uint32_t cmd;  // 0: answered from the host file
    std::string_view jsonKey;
};

struct Setter {
    std::string_view name;
    SetShape shape;
    uint32_t cmd;
    uint32_t max;  // of each number
    std::string_view values;
};

constexpr uint32_t kByteMax = 255;
constexpr uint32_t kTableMax = 256;  // the host table's size bounds both limits

constexpr Getter kGetters[] = {
    {"controlled", GetShape::HostNumber, CMD_GET_CONTROLLED, "controlled"},
    {"access", GetShape::HostAccess, CMD_GET_ACCESS, ""},
    {"type", GetShape::HostNumber, CMD_GET_DEVICE_TYPE, "devType"},
    {"brand", GetShape::HostText, CMD_GET_BRAND, "brand"},
    {"model", GetShape::HostText, CMD_GET_MODEL, "model"},
    {"os", GetShape::HostText, CMD_GET_OS, "os"},
    {"name", GetShape::HostName, 0, "devName"},
    {"max-hosts", GetShape::Global, CMD_GET_MAX_HOSTS, "maxLanHostNum"},
    {"max-controlled", GetShape::Global, CMD_GET_MAX_CONTROLLED, "maxControlledNum"},
    {"hosts", GetShape::Global, CMD_GET_HOST_NUM, "lanHostNum"},
    {"controlled-count", GetShape::Global, CMD_GET_CONTROLLED_NUM, "controlledNum"},
};

constexpr Setter kSetters[] = {
    {"controlled", SetShape::HostNumber, CMD_SET_CONTROLLED, 1, "0|1"},
    {"access", SetShape::HostAccess, CMD_SET_ACCESS, kByteMax, "INTERNET OTHER"},
    {"type", SetShape::HostNumber, CMD_SET_DEVICE_TYPE, kByteMax, "N"},
    {"brand", SetShape::HostText, CMD_SET_BRAND, 0, "TEXT"},
    {"model", SetShape::HostText, CMD_SET_MODEL, 0, "TEXT"},
    {"os", SetShape::HostText, CMD_SET_OS, 0, "TEXT"},
    {"name", SetShape::HostText, CMD_SET_DEV_NAME, 0, "TEXT"},
    {"max-hosts", SetShape::Global, CMD_SET_MAX_HOSTS, kTableMax, "N"},
    {"max-controlled", SetShape::Global, CMD_SET_MAX_CONTROLLED, kTableMax, "N"},
};

template <typename Row, size_t N>
const Row *findRow(const Row (&rows)[N], std::string_view name) {
    for (const Row &row : rows)
        if (row.name == name) return &row;
    return nullptr;
}

template <typename Row, size_t N>
std::string rowNames(const Row (&rows)[N]) {
    std::string names;
    for (const Row &row : rows) names += (names.empty() ? "" : ", ") + std::string(row.name);
    return names;
}

std::string hostMissing(const MacAddress &mac) {
    return "no host " + formatMac(mac.data()) + " in hostrix's table; see 'hostrixctl list'";
}

std::string byteText(uint8_t byte) {
    char text[8];
    std::snprintf(text, sizeof text, "0x%02x", byte);
    return text;
}

// Why the daemon skipped the request: its printable-text check.
std::string ignoredReason(const ctrlMsg_t &request, size_t offset) {
    return "hostrix ignored the request: the text holds byte " + byteText(request.data[offset]) +
           ", and hostrix only takes printable ASCII; nothing was changed";
}

// Sends MSG and replaces it with the reply; status 1 means FAILURE, unless the
// daemon skipped the request, which reads as failure too and is explained.
Outcome ask(ctrlMsg_t &msg, const std::string &failure) {
    std::optional<size_t> rejected = firstRejectedByte(msg);
    ctrlMsg_t reply{};
    Outcome sent = exchange(msg, reply);
    if (!sent.ok()) return sent;
    if (reply.status == kCtrlStatusOk) {
        msg = reply;
        return Outcome::success();
    }
    return Outcome::failed(rejected ? ignoredReason(msg, *rejected) : failure);
}

Outcome parseValue(std::string_view text, uint32_t max, std::string_view what, uint32_t &out) {
    std::optional<uint32_t> value = parseNumber(text, max);
    if (!value)
        return Outcome::usage("bad " + std::string(what) + " '" + std::string(text) +
                              "': expected a number from 0 to " + std::to_string(max) +
                              " (decimal or 0x hex)");
    out = *value;
    return Outcome::success();
}

Outcome parseHost(std::string_view text, MacAddress &mac) {
    std::optional<MacAddress> parsed = parseMac(text);
    if (!parsed) return badMac(text);
    mac = *parsed;
    return Outcome::success();
}

std::string synopsis(std::string_view verb, std::string_view name, bool host,
                     std::string_view values = {}) {
    std::string text = std::string(verb) + " " + std::string(name);
    if (host) text += " MAC";
    if (!values.empty()) text += " " + std::string(values);
    return text;
}

void emitHostValue(const CommandLine &line, const MacAddress &mac, std::string_view key,
                   uint32_t value) {
    if (!line.json) return emitLine(std::to_string(value));
    emitLine(JsonObject().text("mac", formatMac(mac.data())).number(key, value).str());
}

void emitHostText(const CommandLine &line, const MacAddress &mac, std::string_view key,
                  const std::string &text) {
    if (!line.json) return emitLine(escapeText(text));
    emitLine(JsonObject().text("mac", formatMac(mac.data())).text(key, text).str());
}

Outcome getGlobal(const CommandLine &line, const Getter &getter) {
    ctrlMsg_t msg = makeRequest(getter.cmd);
    Outcome asked = ask(msg, "hostrix could not report " + std::string(getter.name));
    if (!asked.ok()) return asked;
    emitLine(line.json ? JsonObject().number(getter.jsonKey, msg.arg1).str()
                       : std::to_string(msg.arg1));
    return Outcome::success();
}

Outcome getName(const CommandLine &line, const MacAddress &mac) {
    std::string bytes;
    Outcome read = readHostFile(bytes);
    if (!read.ok()) return read;
    const std::vector<lanHostInfo_t> records = fileRecords(bytes);
    const lanHostInfo_t *host = findHost(records, mac);
    if (!host)
        return Outcome::failed("no host " + formatMac(mac.data()) +
                               " in the host file (it lists online hosts and is rewritten "
                               "every 30 s); see 'hostrixctl list'");
    emitHostText(line, mac, "devName", fieldText(host->devName));
    return Outcome::success();
}

Outcome getHostAttribute(const CommandLine &line, const Getter &getter, const MacAddress &mac) {
    if (getter.shape == GetShape::HostName) return getName(line, mac);
    ctrlMsg_t msg = makeRequest(getter.cmd);
    putMac(msg, mac);
    Outcome asked = ask(msg, hostMissing(mac));
    if (!asked.ok()) return asked;
    switch (getter.shape) {
        case GetShape::HostNumber:
            emitHostValue(line, mac, getter.jsonKey, msg.arg1);
            break;
        case GetShape::HostAccess:
            emitLine(line.json ? JsonObject()
                                     .text("mac", formatMac(mac.data()))
                                     .number("internetAccess", msg.arg1)
                                     .number("otherAccess", msg.arg2)
                                     .str()
                               : "internet=" + std::to_string(msg.arg1) +
                                     " other=" + std::to_string(msg.arg2));
            break;
        case GetShape::HostText:
            emitHostText(line, mac, getter.jsonKey, replyText(msg));
            break;
        case GetShape::HostName:
        case GetShape::Global:
            break;
    }
    return Outcome::success();
}

void warnIfLong(std::string_view name, std::string_view text) {
    if (text.size() <= kMaxHostText) return;
    std::fprintf(stderr, "hostrixctl: warning: %.*s is %zu bytes; hostrix keeps the first %zu\n",
                 static_cast<int>(name.size()), name.data(), text.size(), kMaxHostText);
}

// Fills MSG's arguments from the words after the MAC.
Outcome putHostValues(const CommandLine &line, const Setter &setter, ctrlMsg_t &msg) {
    switch (setter.shape) {
        case SetShape::HostNumber:
            return parseValue(line.args[2], setter.max, setter.name, msg.arg1);
        case SetShape::HostAccess: {
            Outcome first = parseValue(line.args[2], setter.max, "INTERNET", msg.arg1);
            return first.ok() ? parseValue(line.args[3], setter.max, "OTHER", msg.arg2) : first;
        }
        case SetShape::HostText:
            warnIfLong(setter.name, line.args[2]);
            putText(msg, line.args[2]);
            return Outcome::success();
        case SetShape::Global:
            break;
    }
    return Outcome::success();
}

size_t setWords(SetShape shape) {
    switch (shape) {
        case SetShape::Global:
            return 2;
        case SetShape::HostNumber:
        case SetShape::HostText:
            return 3;
        case SetShape::HostAccess:
            return 4;
    }
    return 0;
}

Outcome setGlobal(const CommandLine &line, const Setter &setter) {
    ctrlMsg_t msg = makeRequest(setter.cmd);
    Outcome parsed = parseValue(line.args[1], setter.max, setter.name, msg.arg1);
    if (!parsed.ok()) return parsed;
    return ask(msg, "hostrix refused " + std::string(setter.name) + " " + line.args[1]);
}

Outcome setHostAttribute(const CommandLine &line, const Setter &setter) {
    MacAddress mac{};
    Outcome parsed = parseHost(line.args[1], mac);
    if (!parsed.ok()) return parsed;
    ctrlMsg_t msg = makeRequest(setter.cmd);
    putMac(msg, mac);
    parsed = putHostValues(line, setter, msg);
    if (!parsed.ok()) return parsed;
    return ask(msg, hostMissing(mac));
}

}  // namespace

Outcome runGet(const CommandLine &line) {
    if (line.args.empty()) return Outcome::usage("get needs an attribute: " + rowNames(kGetters));
    const Getter *getter = findRow(kGetters, line.args[0]);
    if (!getter)
        return Outcome::usage("unknown attribute '" + line.args[0] + "' for get; one of " +
                              rowNames(kGetters));
    bool host = getter->shape != GetShape::Global;
    Outcome args = expectArgs(line, host ? 2 : 1, synopsis("get", getter->name, host));
    if (!args.ok() || !host) return args.ok() ? getGlobal(line, *getter) : args;
    MacAddress mac{};
    Outcome parsed = parseHost(line.args[1], mac);
    return parsed.ok() ? getHostAttribute(line, *getter, mac) : parsed;
}

Outcome runSet(const CommandLine &line) {
    if (line.args.empty()) return Outcome::usage("set needs an attribute: " + rowNames(kSetters));
    const Setter *setter = findRow(kSetters, line.args[0]);
    if (!setter)
        return Outcome::usage("unknown attribute '" + line.args[0] + "' for set; one of " +
                              rowNames(kSetters));
    bool host = setter->shape != SetShape::Global;
    Outcome args = expectArgs(line, setWords(setter->shape),
                              synopsis("set", setter->name, host, setter->values));
    if (!args.ok()) return args;
    return host ? setHostAttribute(line, *setter) : setGlobal(line, *setter);
}

Outcome runPortDown(const CommandLine &line) {
    Outcome args = expectArgs(line, 1, "port-down PORT");
    if (!args.ok()) return args;
    ctrlMsg_t msg = makeRequest(CMD_SET_LINK_CHANGE_PORT);
    Outcome parsed = parseValue(line.args[0], kByteMax, "PORT", msg.arg1);
    if (!parsed.ok()) return parsed;
    return ask(msg, "no LAN port has switch port id " + line.args[0] +
                        " in hostrix's configuration (phy.IFNAME in mib.conf)");
}

Outcome runRelease(const CommandLine &line) {
    Outcome args = expectArgs(line, 1, "release MAC");
    MacAddress mac{};
    if (args.ok()) args = parseHost(line.args[0], mac);
    if (!args.ok()) return args;
    ctrlMsg_t msg = makeRequest(CMD_SET_DHCP_RELEASE);
    putMac(msg, mac);
    return ask(msg, "hostrix did not release " + formatMac(mac.data()));
}

Outcome runLog(const CommandLine &line) {
    Outcome args = expectArgs(line, 1, "log LEVEL");
    if (!args.ok()) return args;
    uint32_t level = 0;
    Outcome parsed = parseValue(line.args[0], UINT32_MAX, "LEVEL", level);
    return parsed.ok() ? writeFifoLevel(level) : parsed;
}
