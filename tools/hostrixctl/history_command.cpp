// history: what hostrix-agent remembers of every device, read straight from its
// database (read-only), so it works whether the agent runs or not.
#include <sqlite3.h>

#include <string>
#include <vector>

#include "agent_paths.h"
#include "commands.h"
#include "config.h"
#include "format.h"
#include "history.h"

namespace {

struct Session {
    int64_t from = 0;
    std::optional<int64_t> until;
};

struct Entry {
    DeviceRow device;
    std::vector<Session> sessions;
};

constexpr const char *kDevicesSql =
    "SELECT mac, first_seen, last_seen, vendor, name, name_source, random_mac, os_family,"
    " last_ipv4, last_ipv6, last_ifname, linked_to FROM devices";
// A MAC and every MAC linked with it: its group shares one history.
constexpr const char *kGroupFilter =
    " WHERE ?1 IN (mac, linked_to) OR mac = (SELECT linked_to FROM devices WHERE mac = ?1)"
    " OR linked_to = (SELECT linked_to FROM devices WHERE mac = ?1)";

DeviceRow readRow(sqlite3_stmt *s) {
    DeviceRow row;
    row.mac = columnText(s, 0), row.firstSeen = sqlite3_column_int64(s, 1);
    row.lastSeen = sqlite3_column_int64(s, 2), row.vendor = columnText(s, 3);
    row.name = columnText(s, 4), row.nameSource = columnText(s, 5);
    row.randomMac = sqlite3_column_int(s, 6) != 0, row.osFamily = columnText(s, 7);
    row.lastIpv4 = columnText(s, 8), row.lastIpv6 = columnText(s, 9);
    row.lastIfname = columnText(s, 10), row.linkedTo = columnText(s, 11);
    return row;
}

std::vector<Session> sessionsOf(sqlite3 *db, const std::string &mac) {
    std::vector<Session> sessions;
    SqliteStatement s = prepareStatement(
        db, "SELECT online_from, online_until FROM sessions WHERE mac = ? ORDER BY online_from");
    if (!s) return sessions;
    sqlite3_bind_text(s.get(), 1, mac.c_str(), -1, SQLITE_TRANSIENT);
    while (sqlite3_step(s.get()) == SQLITE_ROW) {
        Session session{sqlite3_column_int64(s.get(), 0), std::nullopt};
        if (sqlite3_column_type(s.get(), 1) != SQLITE_NULL) session.until = sqlite3_column_int64(s.get(), 1);
        sessions.push_back(session);
    }
    return sessions;
}

Outcome readEntries(sqlite3 *db, const std::optional<std::string> &mac, std::vector<Entry> &out) {
    std::string sql = std::string(kDevicesSql) + (mac ? kGroupFilter : "") + " ORDER BY last_seen DESC";
    SqliteStatement s = prepareStatement(db, sql.c_str());
    if (!s) return Outcome::unreachable(std::string("cannot read the history: ") + sqlite3_errmsg(db));
    if (mac) sqlite3_bind_text(s.get(), 1, mac->c_str(), -1, SQLITE_TRANSIENT);
    while (sqlite3_step(s.get()) == SQLITE_ROW) out.push_back({readRow(s.get()), {}});
    if (mac)
        for (Entry &entry : out) entry.sessions = sessionsOf(db, entry.device.mac);
    return Outcome::success();
}

std::string entryJson(const Entry &entry) {
    const DeviceRow &d = entry.device;
    JsonObject object;
    object.text("mac", d.mac).text("firstSeen", utcText(d.firstSeen)).text("lastSeen", utcText(d.lastSeen));
    object.text("vendor", d.vendor).text("name", d.name).text("nameSource", d.nameSource);
    object.boolean("randomMac", d.randomMac).text("osFamily", d.osFamily);
    object.text("lastIpv4", d.lastIpv4).text("lastIpv6", d.lastIpv6).text("lastIfname", d.lastIfname);
    object.text("linkedTo", d.linkedTo);
    std::string sessions = "[";
    for (const Session &session : entry.sessions) {
        if (sessions.size() > 1) sessions += ',';
        JsonObject one;
        one.text("from", utcText(session.from));
        if (session.until) one.text("until", utcText(*session.until));
        sessions += one.str();
    }
    return object.raw("sessions", sessions + "]").str();
}

std::string cell(const std::string &text) { return text.empty() ? "-" : escapeText(text); }

std::string entryText(const Entry &entry, bool withSessions) {
    const DeviceRow &d = entry.device;
    std::string line = d.mac + "  first " + utcText(d.firstSeen) + "  last " + utcText(d.lastSeen) +
                       "  " + cell(d.name) + "  " + cell(d.vendor) + "  os=" + cell(d.osFamily) +
                       "  " + cell(d.lastIpv4) + (d.linkedTo.empty() ? "" : "  linked to " + d.linkedTo);
    if (!withSessions) return line;
    for (const Session &s : entry.sessions)
        line += "\n    online " + utcText(s.from) + " .. " + (s.until ? utcText(*s.until) : "now");
    return line;
}

}  // namespace

Outcome runHistory(const CommandLine &line) {
    if (line.args.size() > 1) return expectArgs(line, 1, "history [MAC] [--json]");
    std::optional<std::string> mac;
    if (!line.args.empty()) {
        std::optional<MacAddress> parsed = parseMac(line.args[0]);
        if (!parsed) return badMac(line.args[0]);
        mac = formatMac(parsed->data());
    }
    std::vector<std::string> problems;
    std::string path = historyDbPath(readAgentConfig(agentPath(kAgentConfigBase), problems));
    sqlite3 *raw = nullptr;
    int rc = sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READONLY, nullptr);
    SqliteDb db(raw);
    if (rc != SQLITE_OK)
        return Outcome::unreachable("no history at " + path + "; has hostrix-agent run here?");
    std::vector<Entry> entries;
    Outcome read = readEntries(db.get(), mac, entries);
    if (!read.ok()) return read;
    if (mac && entries.empty()) return Outcome::failed("no history for " + *mac);
    if (entries.empty()) emitLine("no devices in the history");
    for (const Entry &entry : entries) emitLine(line.json ? entryJson(entry) : entryText(entry, mac.has_value()));
    return Outcome::success();
}
