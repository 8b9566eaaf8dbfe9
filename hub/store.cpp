#include "hub/store.h"

#include <fcntl.h>

#include <algorithm>
#include <cstring>
#include <ctime>

#include "hub/fd.h"
#include "hub/log.h"
#include "hub/secret.h"

namespace ZARO::RelayHub {

namespace {

constexpr int kSchema = 1;

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

/// NORMAL syncs at checkpoints only: what a power loss may take devices bring again, while a herd
/// of registering devices would wait for the disk at every step.
constexpr char kSettings[] = "PRAGMA synchronous = NORMAL; PRAGMA foreign_keys = ON;"
                             "PRAGMA journal_size_limit = 4194304";

/// The serial is part of it, so that equal tokens of two devices don't look equal on disk.
std::string HashToken(const std::string& serial, const std::string& token) {
    return Sha256(serial + "\n" + token);
}

std::int64_t Now() {
    return time(nullptr);
}

TunnelRecord TunnelOf(const Query& row) {
    TunnelRecord tunnel;
    tunnel.device = row.Integer(0);
    tunnel.id = row.Text(1);
    tunnel.name = row.Text(2);
    tunnel.port = row.Int(3);
    tunnel.relayPort = row.Int(4);
    tunnel.user = row.Text(5);
    tunnel.password = row.Text(6);
    return tunnel;
}

} // namespace

/// Calls `work` and turns what it throws into Fault.
template <typename Work> StoreResult Store::Read(const char* what, Work work) {
    try {
        const std::lock_guard<std::mutex> lock(mutex_);
        return work();
    } catch (const std::exception& fault) {
        Log(Level::Error, "store", "%s failed: %s", what, fault.what());
        return StoreResult::Fault;
    }
}

/// The same within a transaction, which is kept only when `work` gives Done.
template <typename Work> StoreResult Store::Write(const char* what, Work work) {
    return Read(what, [this, &work] {
        Transaction transaction(database_);
        const StoreResult result = work();
        if (result == StoreResult::Done) {
            transaction.Commit();
        }
        return result;
    });
}

bool Store::Open(const std::string& file, PortPool pool, std::string* error) {
    pool_ = std::move(pool);
    // SQLite gives the files beside it the mode of this one, so it is made private first.
    Fd made(open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!made) {
        *error = "can't open " + file + ": " + strerror(errno);
        return false;
    }
    made.Reset(); // closed later it would take SQLite's locks on the file with it
    try {
        Prepare(file);
        return true;
    } catch (const DatabaseFault& fault) {
        *error = "can't use " + file + ": " + fault.what();
        if (fault.IsDamage()) {
            *error += "; put a copy back, or move it away, which makes every device register anew;"
                      " remove its -wal and -shm files with it";
        }
        return false;
    } catch (const std::exception& fault) {
        *error = "can't use " + file + ": " + fault.what();
        return false;
    }
}

void Store::Prepare(const std::string& file) {
    try {
        database_.Open(file);
        database_.Execute("PRAGMA journal_mode = WAL");
        database_.Execute(kSettings);
        const int schema = Schema();
        Transaction transaction(database_);
        if (schema == 0) {
            database_.Execute(kTables);
        }
        // No tunnel is up now, while devices may have seen theirs up.
        database_.Execute("UPDATE device SET revision = revision % 2147483647 + 1");
        transaction.Commit();
    } catch (const DatabaseFault& fault) {
        if (!fault.IsUnwritable()) {
            throw;
        }
        // Alone with the file SQLite needs no shared memory beside it, which takes room.
        database_.Close();
        database_.Open(file);
        database_.Execute("PRAGMA locking_mode = EXCLUSIVE");
        database_.Execute(kSettings);
        if (Schema() == 0) {
            throw;
        }
        Log(Level::Warning, "store", "serves what it knows, but can't write: %s", fault.what());
    }
}

int Store::Schema() {
    Query version(database_, "PRAGMA user_version");
    const int schema = version.Next() ? version.Int(0) : 0;
    if (schema > kSchema) {
        throw DatabaseFault("it was written by a newer version");
    }
    return schema;
}

bool Store::HasDevices() {
    return Read("look for devices", [this] {
               Query any(database_, "SELECT 1 FROM device LIMIT 1");
               return any.Next() ? StoreResult::Done : StoreResult::NotFound;
           }) == StoreResult::Done;
}

StoreResult Store::Register(const Identity& identity, const std::string& session, Device* device) {
    return Write("register", [&] {
        const StoreResult result = Admit(identity, device);
        if (result == StoreResult::Done) {
            AddSession(device->key, session);
            Query(database_, "UPDATE service SET stale = 1 WHERE device = ?", device->key).Run();
        }
        return result;
    });
}

StoreResult Store::Admit(const Identity& identity, Device* device) {
    const std::string token = HashToken(identity.serial, identity.token);
    device->serverId = identity.serverId;
    device->key = 0;
    {
        Query known(database_, "SELECT key, token FROM device WHERE serial = ?", identity.serial);
        if (known.Next()) {
            device->key = known.Integer(0);
            if (!EqualSecrets(known.Text(1), token)) {
                return StoreResult::Refused;
            }
        }
    }
    {
        Query clash(database_, "SELECT 1 FROM device WHERE server_id = ? AND key <> ?",
                    identity.serverId, device->key);
        if (clash.Next()) {
            return StoreResult::Refused;
        }
    }
    if (device->key != 0) {
        Query(database_, "UPDATE device SET server_id = ?, mac = ?, timezone = ? WHERE key = ?",
              identity.serverId, identity.mac, identity.timezone, device->key)
            .Run();
        return StoreResult::Done;
    }
    Query count(database_, "SELECT count(*) FROM device");
    if (count.Next() && count.Int(0) >= kMaxDevices) {
        return StoreResult::Full;
    }
    Query add(database_,
              "INSERT INTO device(serial, token, server_id, mac, timezone) VALUES(?, ?, ?, ?, ?)"
              " RETURNING key",
              identity.serial, token, identity.serverId, identity.mac, identity.timezone);
    if (add.Next()) {
        device->key = add.Integer(0);
    }
    return StoreResult::Done;
}

void Store::AddSession(std::int64_t device, const std::string& session) {
    Query(database_, "INSERT INTO session(hash, device) VALUES(?, ?)", session, device).Run();
    Query(database_,
          "DELETE FROM session WHERE device = ?1 AND key NOT IN"
          " (SELECT key FROM session WHERE device = ?1 ORDER BY key DESC LIMIT ?2)",
          device, kKeptSessions)
        .Run();
}

StoreResult Store::FindSession(const std::string& session, Device* device) {
    return Read("session look-up", [&] {
        Query found(database_,
                    "SELECT device.key, server_id FROM session JOIN device"
                    " ON device.key = session.device WHERE hash = ?",
                    session);
        if (!found.Next()) {
            return StoreResult::NotFound;
        }
        *device = {found.Integer(0), found.Text(1)};
        return StoreResult::Done;
    });
}

StoreResult Store::Authenticate(const std::string& serial, const std::string& token,
                                const std::string& serverId, Device* device) {
    return Read("authentication", [&] {
        Query known(database_, "SELECT key, token, server_id FROM device WHERE serial = ?", serial);
        if (!known.Next() || !EqualSecrets(known.Text(1), HashToken(serial, token)) ||
            known.Text(2) != serverId) {
            return StoreResult::Refused;
        }
        *device = {known.Integer(0), serverId};
        return StoreResult::Done;
    });
}

StoreResult Store::SetNetwork(std::int64_t device, const std::string& network) {
    return Write("network update", [&] {
        Query(database_, "UPDATE device SET network = ? WHERE key = ?", network, device).Run();
        return StoreResult::Done;
    });
}

StoreResult Store::UpdateServices(std::int64_t device, const std::vector<ServiceRecord>& present,
                                  const std::vector<std::string>& removed,
                                  std::vector<std::string>* gone) {
    std::vector<std::string> users;
    const StoreResult result = Write("service update", [&] {
        for (const std::string& id : removed) {
            Query drop(database_,
                       "DELETE FROM service WHERE device = ? AND id = ? RETURNING relay_user",
                       device, id);
            while (drop.Next()) {
                users.push_back(drop.Text(0));
            }
        }
        // What goes makes room for what comes.
        for (const ServiceRecord& service : present) {
            Query(database_, "UPDATE service SET stale = 0 WHERE device = ? AND id = ?", device,
                  service.id)
                .Run();
        }
        DropStale(device, &users);
        bool changed = !users.empty();
        for (const ServiceRecord& service : present) {
            const StoreResult put = Put(device, service, &changed);
            if (put != StoreResult::Done) {
                return put;
            }
        }
        if (changed) {
            Bump(device);
        }
        return StoreResult::Done;
    });
    if (result == StoreResult::Done) {
        *gone = std::move(users);
    }
    return result;
}

StoreResult Store::Put(std::int64_t device, const ServiceRecord& service, bool* changed) {
    {
        Query known(database_,
                    "SELECT name, port, external_port FROM service WHERE device = ? AND id = ?",
                    device, service.id);
        if (!known.Next()) {
            *changed = true;
            return Add(device, service);
        }
        *changed = *changed || known.Text(0) != service.name || known.Int(1) != service.port ||
                   known.Int(2) != service.externalPort;
    }
    Query(database_,
          "UPDATE service SET name = ?, port = ?, external_port = ? WHERE device = ? AND id = ?",
          service.name, service.port, service.externalPort, device, service.id)
        .Run();
    return StoreResult::Done;
}

StoreResult Store::Add(std::int64_t device, const ServiceRecord& service) {
    Query count(database_, "SELECT count(*) FROM service WHERE device = ?", device);
    if (count.Next() && count.Int(0) >= kMaxServices) {
        return StoreResult::Full;
    }
    const std::optional<int> port = NextPort();
    if (!port) {
        shortages_.Log("store", "every port of %d-%d is taken", pool_.first, pool_.last);
        return StoreResult::Full;
    }
    Query(database_,
          "INSERT INTO service(device, id, name, port, external_port, relay_port, relay_user,"
          " relay_password) VALUES(?, ?, ?, ?, ?, ?, ?, ?)",
          device, service.id, service.name, service.port, service.externalPort, *port,
          "t" + RandomText(15), RandomText(32))
        .Run();
    return StoreResult::Done;
}

/// Ports are handed out in turn, so that the address of a service that is gone leads nowhere for as
/// long as possible instead of to somebody else's service.
std::optional<int> Store::NextPort() {
    int last = 0;
    {
        Query cursor(database_, "SELECT port FROM port_cursor");
        last = cursor.Next() ? cursor.Int(0) : 0;
    }
    const int size = pool_.last - pool_.first + 1;
    const int start = last >= pool_.first && last <= pool_.last ? last - pool_.first + 1 : 0;
    for (int i = 0; i < size; ++i) {
        const int port = pool_.first + (start + i) % size;
        {
            Query used(database_, "SELECT 1 FROM service WHERE relay_port = ?", port);
            if (used.Next()) {
                continue;
            }
        }
        if (!pool_.isFree || pool_.isFree(port)) {
            Query(database_, "UPDATE port_cursor SET port = ?", port).Run();
            return port;
        }
    }
    return std::nullopt;
}

void Store::DropStale(std::int64_t device, std::vector<std::string>* gone) {
    Query drop(database_, "DELETE FROM service WHERE device = ? AND stale = 1 RETURNING relay_user",
               device);
    while (drop.Next()) {
        gone->push_back(drop.Text(0));
    }
}

StoreResult Store::DropStaleServices(std::int64_t device, std::vector<std::string>* gone) {
    std::vector<std::string> users;
    const StoreResult result = Write("service removal", [&] {
        DropStale(device, &users);
        if (!users.empty()) {
            Bump(device);
        }
        return StoreResult::Done;
    });
    if (result == StoreResult::Done) {
        *gone = std::move(users);
    }
    return result;
}

StoreResult Store::ListTunnels(std::int64_t device, std::vector<TunnelRecord>* tunnels) {
    return Read("tunnel list", [&] {
        std::vector<TunnelRecord> found;
        Query rows(database_,
                   "SELECT device, id, name, port, relay_port, relay_user, relay_password"
                   " FROM service WHERE device = ? ORDER BY id",
                   device);
        while (rows.Next()) {
            found.push_back(TunnelOf(rows));
        }
        *tunnels = std::move(found);
        return StoreResult::Done;
    });
}

StoreResult Store::FindTunnel(const std::string& user, TunnelRecord* tunnel) {
    return Read("tunnel look-up", [&] {
        Query row(database_,
                  "SELECT device, id, name, port, relay_port, relay_user, relay_password"
                  " FROM service WHERE relay_user = ?",
                  user);
        if (!row.Next()) {
            return StoreResult::NotFound;
        }
        *tunnel = TunnelOf(row);
        return StoreResult::Done;
    });
}

StoreResult Store::Revision(std::int64_t device, int* revision) {
    return Read("revision look-up", [&] {
        Query row(database_, "SELECT revision FROM device WHERE key = ?", device);
        if (!row.Next()) {
            return StoreResult::NotFound;
        }
        *revision = row.Int(0);
        return StoreResult::Done;
    });
}

StoreResult Store::BumpRevision(std::int64_t device, int* revision) {
    return Write("revision change", [&] {
        *revision = Bump(device);
        return StoreResult::Done;
    });
}

int Store::Bump(std::int64_t device) {
    Query change(database_,
                 "UPDATE device SET revision = revision % 2147483647 + 1 WHERE key = ?"
                 " RETURNING revision",
                 device);
    return change.Next() ? change.Int(0) : 0;
}

std::int64_t Store::OwnerOf(const std::string& name, std::int64_t device) {
    Query owner(database_,
                "SELECT device FROM alias WHERE name = ? AND (expires > ? OR device = ?)", name,
                Now(), device);
    return owner.Next() ? owner.Integer(0) : 0;
}

StoreResult Store::MapAlias(const std::string& name, std::int64_t device,
                            std::chrono::seconds ttl) {
    return Write("alias mapping", [&] {
        const std::int64_t owner = OwnerOf(name, device);
        if (owner != 0 && owner != device) {
            return StoreResult::Taken;
        }
        Query(database_, "DELETE FROM alias WHERE device = ? OR name = ?", device, name).Run();
        Query(database_, "INSERT INTO alias(name, device, expires) VALUES(?, ?, ?)", name, device,
              Now() + ttl.count())
            .Run();
        return StoreResult::Done;
    });
}

StoreResult Store::KeepAlias(const std::string& name, std::int64_t device,
                             std::chrono::seconds ttl) {
    return Write("alias renewal", [&] {
        const std::int64_t owner = OwnerOf(name, device);
        if (owner != device) {
            return owner == 0 ? StoreResult::NotFound : StoreResult::Taken;
        }
        Query(database_, "UPDATE alias SET expires = ? WHERE name = ?", Now() + ttl.count(), name)
            .Run();
        return StoreResult::Done;
    });
}

StoreResult Store::DeleteAlias(const std::string& name, std::int64_t device) {
    return Write("alias removal", [&] {
        if (OwnerOf(name, device) != device) {
            return StoreResult::NotFound; // another device's name is none of its business
        }
        Query(database_, "DELETE FROM alias WHERE name = ?", name).Run();
        return StoreResult::Done;
    });
}

StoreResult Store::FindAlias(const std::string& name, Device* device) {
    return Read("alias look-up", [&] {
        Query row(database_,
                  "SELECT device.key, server_id FROM alias JOIN device ON device.key = alias.device"
                  " WHERE name = ? AND expires > ?",
                  name, Now());
        if (!row.Next()) {
            return StoreResult::NotFound;
        }
        *device = {row.Integer(0), row.Text(1)};
        return StoreResult::Done;
    });
}

} // namespace ZARO::RelayHub
