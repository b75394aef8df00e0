// The device history in SQLite: the devices and sessions tables that other
// programs may read, and the DHCP fingerprints that linking needs across restarts.
// Writes come in batches (one transaction, at most every 30 s and at shutdown) to
// spare the flash. A database that cannot be opened or written is reported once;
// from then on the agent keeps its history in memory only.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "dhcp_report.h"

inline constexpr int64_t kHistoryFlushSeconds = 30;

struct DeviceRow {
    std::string mac;
    int64_t firstSeen = 0, lastSeen = 0;
    std::string vendor, name, nameSource;
    bool randomMac = false;
    std::string osFamily, lastIpv4, lastIpv6, lastIfname, linkedTo;
};

struct FingerprintRow {
    std::string mac;
    DhcpReport dhcp;
    int64_t seen = 0;
};

struct SessionChange {
    std::string mac;
    int64_t from = 0;
    std::optional<int64_t> until;  // none: the session opens
};

struct SqliteCloser {
    void operator()(sqlite3 *db) const { sqlite3_close(db); }
};
using SqliteDb = std::unique_ptr<sqlite3, SqliteCloser>;

struct StatementCloser {
    void operator()(sqlite3_stmt *statement) const { sqlite3_finalize(statement); }
};
using SqliteStatement = std::unique_ptr<sqlite3_stmt, StatementCloser>;

class History {
public:
    // Opens (creating the file, its folder and the tables); false when the agent
    // has to run on in memory, after one log line.
    bool open(const std::string &path);
    bool usable() const { return db_ != nullptr; }

    std::vector<DeviceRow> devicesSeenSince(int64_t since);
    std::optional<DeviceRow> device(const std::string &mac);
    std::vector<FingerprintRow> fingerprintsSince(int64_t since);
    // Sessions still open from an earlier run: mac and start.
    std::vector<SessionChange> openSessions();
    // The newest LIMIT sessions of MAC, newest first (as written so far).
    std::vector<SessionChange> sessionsOf(const std::string &mac, size_t limit);

    // One transaction; false (and the database let go, reported once) on failure.
    bool write(const std::vector<DeviceRow> &devices, const std::vector<FingerprintRow> &prints,
               const std::vector<SessionChange> &sessions);

private:
    SqliteStatement prepare(const char *sql);
    bool exec(const char *sql);
    void fail(const std::string &what);

    SqliteDb db_;
    std::string path_;
};

// Read-only helpers for hostrixctl history.
SqliteStatement prepareStatement(sqlite3 *db, const char *sql);
std::string columnText(sqlite3_stmt *statement, int column);
