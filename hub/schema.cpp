#include "hub/schema.h"

#include <utility>

#include "hub/log.h"
#include "hub/sqlite.h"

namespace ZARO::RelayHub {

namespace {

constexpr int kVersion = 1; // of the tables

constexpr char kTables[] = R"(
CREATE TABLE device(
    key INTEGER PRIMARY KEY,
    serial TEXT NOT NULL UNIQUE,
    token TEXT NOT NULL,
    server_id TEXT NOT NULL UNIQUE,
    mac TEXT NOT NULL,
    timezone TEXT NOT NULL,
    network TEXT NOT NULL DEFAULT '',
    revision INTEGER NOT NULL DEFAULT 1);
CREATE TABLE session(
    key INTEGER PRIMARY KEY AUTOINCREMENT,
    hash TEXT NOT NULL UNIQUE,
    device INTEGER NOT NULL REFERENCES device ON DELETE CASCADE);
CREATE INDEX session_device ON session(device);
CREATE TABLE service(
    device INTEGER NOT NULL REFERENCES device ON DELETE CASCADE,
    id TEXT NOT NULL,
    name TEXT NOT NULL,
    port INTEGER NOT NULL,
    external_port INTEGER NOT NULL,
    relay_port INTEGER NOT NULL UNIQUE,
    relay_user TEXT NOT NULL UNIQUE,
    relay_password TEXT NOT NULL,
    stale INTEGER NOT NULL DEFAULT 0,
    PRIMARY KEY(device, id)) WITHOUT ROWID;
CREATE TABLE alias(
    name TEXT PRIMARY KEY,
    device INTEGER NOT NULL UNIQUE REFERENCES device ON DELETE CASCADE,
    expires INTEGER NOT NULL) WITHOUT ROWID;
CREATE INDEX alias_expires ON alias(expires);
CREATE TABLE port_cursor(port INTEGER NOT NULL);
INSERT INTO port_cursor VALUES(0);
PRAGMA user_version = 1;
)";

/// NORMAL syncs at checkpoints only. Devices bring back what a loss of power takes. With more syncs
/// each step would wait for the disk when many devices register at once.
constexpr char kSettings[] = "PRAGMA synchronous = NORMAL; PRAGMA foreign_keys = ON;"
                             "PRAGMA journal_size_limit = 4194304";

/// The version of the tables in the file, 0 = it has none. Throws when this hub is too old for
/// them.
int VersionOf(Database& database) {
    Query query(database, "PRAGMA user_version");
    const int version = query.Next() ? query.Int(0) : 0;
    if (version > kVersion) {
        throw DatabaseFault("it was written by a newer version", FaultKind::Newer);
    }
    return version;
}

std::unique_ptr<Database> OpenForWriting(const std::string& file) {
    auto database = std::make_unique<Sqlite>(file);
    database->Execute("PRAGMA journal_mode = WAL");
    database->Execute(kSettings);
    const int version = VersionOf(*database);
    Transaction transaction(*database);
    if (version == 0) {
        database->Execute(kTables);
    }
    // Devices may have seen their tunnels up.
    database->Execute("UPDATE device SET revision = revision % 2147483647 + 1");
    transaction.Commit();
    return database;
}

/// Nothing when the tables are missing. In exclusive mode SQLite needs no shared memory file, for
/// which there may be no room.
std::unique_ptr<Database> OpenForReading(const std::string& file) {
    auto database = std::make_unique<Sqlite>(file);
    database->Execute("PRAGMA locking_mode = EXCLUSIVE");
    database->Execute(kSettings);
    return VersionOf(*database) == 0 ? nullptr : std::move(database);
}

} // namespace

std::unique_ptr<Database> OpenWithTables(const std::string& file) {
    try {
        return OpenForWriting(file);
    } catch (const DatabaseFault& fault) {
        std::unique_ptr<Database> database;
        if (fault.kind == FaultKind::Unwritable) {
            database = OpenForReading(file);
        }
        if (database == nullptr) {
            throw;
        }
        Log(Level::Warning, "store", "serves what it knows, but can't write: %s", fault.what());
        return database;
    }
}

} // namespace ZARO::RelayHub
