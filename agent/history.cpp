#include "history.h"

#include <cerrno>

#include "agent_paths.h"
#include "log.h"

namespace {

constexpr int kBusyTimeoutMs = 1000;

constexpr const char *kSchema =
    "CREATE TABLE IF NOT EXISTS devices(mac TEXT PRIMARY KEY, first_seen INTEGER,"
    " last_seen INTEGER, vendor TEXT, name TEXT, name_source TEXT, random_mac INTEGER,"
    " os_family TEXT, last_ipv4 TEXT, last_ipv6 TEXT, last_ifname TEXT, linked_to TEXT);"
    "CREATE TABLE IF NOT EXISTS sessions(mac TEXT, online_from INTEGER, online_until INTEGER);"
    "CREATE INDEX IF NOT EXISTS sessions_mac ON sessions(mac, online_from);"
    "CREATE TABLE IF NOT EXISTS dhcp_fingerprints(mac TEXT PRIMARY KEY, client_id TEXT,"
    " hostname TEXT, vendor_class TEXT, options TEXT, seen INTEGER);";

constexpr const char *kDeviceColumns =
    "mac, first_seen, last_seen, vendor, name, name_source, random_mac, os_family, last_ipv4,"
    " last_ipv6, last_ifname, linked_to";

void bindText(sqlite3_stmt *statement, int index, const std::string &text) {
    if (text.empty())
        sqlite3_bind_null(statement, index);
    else
        sqlite3_bind_text(statement, index, text.c_str(), static_cast<int>(text.size()),
                          SQLITE_TRANSIENT);
}

DeviceRow readDevice(sqlite3_stmt *s) {
    DeviceRow row;
    row.mac = columnText(s, 0);
    row.firstSeen = sqlite3_column_int64(s, 1);
    row.lastSeen = sqlite3_column_int64(s, 2);
    row.vendor = columnText(s, 3), row.name = columnText(s, 4), row.nameSource = columnText(s, 5);
    row.randomMac = sqlite3_column_int(s, 6) != 0;
    row.osFamily = columnText(s, 7), row.lastIpv4 = columnText(s, 8);
    row.lastIpv6 = columnText(s, 9), row.lastIfname = columnText(s, 10);
    row.linkedTo = columnText(s, 11);
    return row;
}

void bindDevice(sqlite3_stmt *s, const DeviceRow &row) {
    bindText(s, 1, row.mac);
    sqlite3_bind_int64(s, 2, row.firstSeen);
    sqlite3_bind_int64(s, 3, row.lastSeen);
    bindText(s, 4, row.vendor), bindText(s, 5, row.name), bindText(s, 6, row.nameSource);
    sqlite3_bind_int(s, 7, row.randomMac ? 1 : 0);
    bindText(s, 8, row.osFamily), bindText(s, 9, row.lastIpv4), bindText(s, 10, row.lastIpv6);
    bindText(s, 11, row.lastIfname), bindText(s, 12, row.linkedTo);
}

std::vector<uint8_t> optionsOf(const std::string &text) {
    std::optional<DhcpReport> parsed = parseDhcpReport("mac=00:00:00:00:00:00\noptions=" + text);
    return parsed ? parsed->options : std::vector<uint8_t>{};
}

}  // namespace

SqliteStatement prepareStatement(sqlite3 *db, const char *sql) {
    sqlite3_stmt *statement = nullptr;
    if (sqlite3_prepare_v2(db, sql, -1, &statement, nullptr) != SQLITE_OK) return nullptr;
    return SqliteStatement(statement);
}

std::string columnText(sqlite3_stmt *statement, int column) {
    const unsigned char *text = sqlite3_column_text(statement, column);
    return text ? reinterpret_cast<const char *>(text) : "";
}

bool History::open(const std::string &path) {
    path_ = path;
    makeParentFolders(path);
    sqlite3 *raw = nullptr;
    int rc = sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    db_.reset(raw);
    if (rc != SQLITE_OK) {
        fail("cannot open");
        return false;
    }
    sqlite3_busy_timeout(db_.get(), kBusyTimeoutMs);
    if (!exec(kSchema)) fail("cannot set up its tables in");
    return usable();
}

void History::fail(const std::string &what) {
    std::string reason = db_ ? sqlite3_errmsg(db_.get()) : "out of memory";
    agentLogOnce("history", "history: " + what + " " + path_ + " (" + reason +
                                "); keeping the history in memory only");
    db_.reset();
}

SqliteStatement History::prepare(const char *sql) {
    return db_ ? prepareStatement(db_.get(), sql) : nullptr;
}

bool History::exec(const char *sql) {
    return db_ && sqlite3_exec(db_.get(), sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

std::vector<DeviceRow> History::devicesSeenSince(int64_t since) {
    std::vector<DeviceRow> rows;
    std::string sql = std::string("SELECT ") + kDeviceColumns + " FROM devices WHERE last_seen >= ?";
    SqliteStatement s = prepare(sql.c_str());
    if (!s) return rows;
    sqlite3_bind_int64(s.get(), 1, since);
    while (sqlite3_step(s.get()) == SQLITE_ROW) rows.push_back(readDevice(s.get()));
    return rows;
}

std::optional<DeviceRow> History::device(const std::string &mac) {
    std::string sql = std::string("SELECT ") + kDeviceColumns + " FROM devices WHERE mac = ?";
    SqliteStatement s = prepare(sql.c_str());
    if (!s) return std::nullopt;
    bindText(s.get(), 1, mac);
    if (sqlite3_step(s.get()) != SQLITE_ROW) return std::nullopt;
    return readDevice(s.get());
}

std::vector<FingerprintRow> History::fingerprintsSince(int64_t since) {
    std::vector<FingerprintRow> rows;
    SqliteStatement s = prepare(
        "SELECT mac, client_id, hostname, vendor_class, options, seen FROM dhcp_fingerprints"
        " WHERE seen >= ?");
    if (!s) return rows;
    sqlite3_bind_int64(s.get(), 1, since);
    while (sqlite3_step(s.get()) == SQLITE_ROW) {
        FingerprintRow row;
        row.mac = columnText(s.get(), 0);
        row.dhcp.clientId = columnText(s.get(), 1), row.dhcp.hostname = columnText(s.get(), 2);
        row.dhcp.vendorClass = columnText(s.get(), 3);
        row.dhcp.options = optionsOf(columnText(s.get(), 4));
        row.seen = sqlite3_column_int64(s.get(), 5);
        rows.push_back(std::move(row));
    }
    return rows;
}

std::vector<SessionChange> History::openSessions() {
    std::vector<SessionChange> open;
    SqliteStatement s = prepare("SELECT mac, online_from FROM sessions WHERE online_until IS NULL");
    while (s && sqlite3_step(s.get()) == SQLITE_ROW)
        open.push_back({columnText(s.get(), 0), sqlite3_column_int64(s.get(), 1), std::nullopt});
    return open;
}

std::vector<SessionChange> History::sessionsOf(const std::string &mac, size_t limit) {
    std::vector<SessionChange> sessions;
    SqliteStatement s = prepare(
        "SELECT online_from, online_until FROM sessions WHERE mac = ? ORDER BY online_from DESC LIMIT ?");
    if (!s) return sessions;
    bindText(s.get(), 1, mac);
    sqlite3_bind_int64(s.get(), 2, static_cast<int64_t>(limit));
    while (sqlite3_step(s.get()) == SQLITE_ROW) {
        SessionChange session{mac, sqlite3_column_int64(s.get(), 0), std::nullopt};
        if (sqlite3_column_type(s.get(), 1) != SQLITE_NULL) session.until = sqlite3_column_int64(s.get(), 1);
        sessions.push_back(std::move(session));
    }
    return sessions;
}

bool History::write(const std::vector<DeviceRow> &devices, const std::vector<FingerprintRow> &prints,
                    const std::vector<SessionChange> &sessions) {
    if (!usable()) return false;
    std::string upsert = std::string("INSERT OR REPLACE INTO devices(") + kDeviceColumns +
                         ") VALUES(?,?,?,?,?,?,?,?,?,?,?,?)";
    SqliteStatement device = prepare(upsert.c_str());
    SqliteStatement print = prepare(
        "INSERT OR REPLACE INTO dhcp_fingerprints VALUES(?,?,?,?,?,?)");
    SqliteStatement opens = prepare("INSERT INTO sessions VALUES(?,?,NULL)");
    SqliteStatement closes = prepare(
        "UPDATE sessions SET online_until = ? WHERE mac = ? AND online_from = ? AND online_until IS NULL");
    bool ok = device && print && opens && closes && exec("BEGIN");
    for (const DeviceRow &row : devices) {
        if (!ok) break;
        sqlite3_reset(device.get());
        bindDevice(device.get(), row);
        ok = sqlite3_step(device.get()) == SQLITE_DONE;
    }
    for (const FingerprintRow &row : prints) {
        if (!ok) break;
        sqlite3_reset(print.get());
        bindText(print.get(), 1, row.mac), bindText(print.get(), 2, row.dhcp.clientId);
        bindText(print.get(), 3, row.dhcp.hostname), bindText(print.get(), 4, row.dhcp.vendorClass);
        bindText(print.get(), 5, optionListText(row.dhcp.options));
        sqlite3_bind_int64(print.get(), 6, row.seen);
        ok = sqlite3_step(print.get()) == SQLITE_DONE;
    }
    for (const SessionChange &change : sessions) {
        if (!ok) break;
        sqlite3_stmt *s = change.until ? closes.get() : opens.get();
        sqlite3_reset(s);
        if (change.until) {
            sqlite3_bind_int64(s, 1, *change.until);
            bindText(s, 2, change.mac);
            sqlite3_bind_int64(s, 3, change.from);
        } else {
            bindText(s, 1, change.mac);
            sqlite3_bind_int64(s, 2, change.from);
        }
        ok = sqlite3_step(s) == SQLITE_DONE;
    }
    if (ok && exec("COMMIT")) return true;
    exec("ROLLBACK");
    device.reset(), print.reset(), opens.reset(), closes.reset();
    fail("cannot write to");
    return false;
}
