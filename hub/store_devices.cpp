#include "hub/store_devices.h"

#include "hub/secret.h"

namespace ZARO::RelayHub {

namespace {

constexpr auto kCounting = std::chrono::seconds(10);

void AddSession(Database& database, std::int64_t device, const std::string& session) {
    Query(database, "INSERT INTO session(hash, device) VALUES($1, $2)", session, device).Run();
    Query(database,
          "DELETE FROM session WHERE device = $1 AND key <="
          " (SELECT key FROM session WHERE device = $1 ORDER BY key DESC LIMIT 1 OFFSET $2)",
          device, kKeptSessions)
        .Run();
}

std::string HashOf(const std::string& serial, const std::string& token) {
    return Sha256(serial + "\n" + token);
}

void Note(Database& database, const Identity& identity, std::int64_t key) {
    Query(database,
          "UPDATE device SET server_id = $1, mac = $2, timezone = $3, registered = unixepoch()"
          " WHERE key = $4",
          identity.serverId, identity.mac, identity.timezone, key)
        .Run();
}

} // namespace

std::string HashToken(const Identity& identity) {
    return HashOf(identity.serial, identity.token);
}

std::int64_t DeviceStore::Count() {
    std::int64_t known = 0;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (!IsCountOld()) {
            return count_;
        }
    }
    (void)access_.Read("counting of devices", [&](Database& database) {
        const std::lock_guard<std::mutex> lock(mutex_);
        known = count_; // in case that it can't be looked up
        known = Counted(database);
        return StoreResult::Done;
    });
    return known;
}

bool DeviceStore::IsCountOld() const {
    return counted_ == decltype(counted_)() ||
           std::chrono::steady_clock::now() >= counted_ + kCounting;
}

std::int64_t DeviceStore::Counted(Database& database) {
    if (IsCountOld()) {
        Query count(database, "SELECT count(*) FROM device");
        count_ = count.Next() ? count.Integer(0) : 0;
        counted_ = std::chrono::steady_clock::now();
    }
    return count_;
}

bool DeviceStore::TakeRoom(Database& database) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (Counted(database) >= kMaxDevices) {
        return false;
    }
    ++count_;
    return true;
}

StoreResult DeviceStore::Add(Database& database, const Identity& identity, const std::string& token,
                             std::int64_t& key) {
    if (!TakeRoom(database)) {
        return StoreResult::Full;
    }
    Query add(database,
              "INSERT INTO device(serial, token, server_id, mac, timezone, admitted_at)"
              " VALUES($1, $2, $3, $4, $5, unixepoch()) RETURNING key",
              identity.serial, token, identity.serverId, identity.mac, identity.timezone);
    if (add.Next()) {
        key = add.Integer(0);
    }
    return StoreResult::Done;
}

bool DeviceStore::HasAnother(Database& database, const std::string& serverId, std::int64_t key) {
    Query other(database, "SELECT 1 FROM device WHERE server_id = $1 AND key <> $2", serverId, key);
    return other.Next();
}

Standing DeviceStore::Judge(Database& database, const Identity& identity, std::int64_t& key) {
    key = 0;
    bool hasSameToken = true, hasSameId = false;
    {
        Query known(database,
                    database.Sql("SELECT key, token, server_id FROM device WHERE serial = $1",
                                 "SELECT key, token, server_id FROM device WHERE serial = $1"
                                 " FOR UPDATE"),
                    identity.serial);
        if (known.Next()) {
            key = known.Integer(0);
            hasSameToken = EqualSecrets(known.Text(1), HashToken(identity));
            hasSameId = known.Text(2) == identity.serverId;
        }
    }
    if (IsBanned(database, identity.serial)) {
        return Standing::Banned;
    }
    if (!hasSameToken) {
        return Standing::OtherToken;
    }
    if (!hasSameId && HasAnother(database, identity.serverId, key)) {
        return Standing::OtherId;
    }
    return key == 0 ? Standing::Unknown : Standing::Admitted;
}

bool DeviceStore::HasAny() {
    return access_.Read("look for devices", [](Database& database) {
        Query any(database, "SELECT 1 FROM device LIMIT 1");
        return any.Next() ? StoreResult::Done : StoreResult::NotFound;
    }) == StoreResult::Done;
}

StoreResult DeviceStore::Register(const Identity& identity, const std::string& session,
                                  Device& device) {
    std::int64_t key = 0;
    const StoreResult result = access_.Write("register", [&](Database& database) {
        const Standing standing = Judge(database, identity, key);
        StoreResult admitted = StoreResult::Done;
        if (standing == Standing::Unknown) {
            admitted = admitsAll_ ? Add(database, identity, HashToken(identity), key)
                                  : StoreResult::NotFound;
        } else if (standing != Standing::Admitted) {
            admitted = StoreResult::Refused;
        }
        if (admitted == StoreResult::Done) {
            Note(database, identity, key);
            AddSession(database, key, session);
            Query(database, "UPDATE service SET stale = 1 WHERE device = $1", key).Run();
        }
        return admitted;
    });
    if (result == StoreResult::Done) {
        device = {key, identity.serverId};
    }
    return result;
}

StoreResult DeviceStore::FindSession(const std::string& session, Device& device) {
    return access_.Read("session look-up", [&](Database& database) {
        Query found(database,
                    "SELECT device.key, server_id FROM session JOIN device"
                    " ON device.key = session.device WHERE hash = $1",
                    session);
        if (!found.Next()) {
            return StoreResult::NotFound;
        }
        device = {found.Integer(0), found.Text(1)};
        return StoreResult::Done;
    });
}

StoreResult DeviceStore::Authenticate(const std::string& serial, const std::string& token,
                                      const std::string& serverId, Device& device) {
    return access_.Read("authentication", [&](Database& database) {
        Query known(database, "SELECT key, token, server_id FROM device WHERE serial = $1", serial);
        if (!known.Next() || !EqualSecrets(known.Text(1), HashOf(serial, token)) ||
            known.Text(2) != serverId) {
            return StoreResult::Refused;
        }
        device = {known.Integer(0), serverId};
        return IsBanned(database, serial) ? StoreResult::Refused : StoreResult::Done;
    });
}

StoreResult DeviceStore::SetNetwork(std::int64_t device, const std::string& network) {
    return access_.Write("network update", [&](Database& database) {
        if (!LockDevice(database, device)) {
            return StoreResult::NotFound;
        }
        Query(database, "UPDATE device SET network = $1 WHERE key = $2", network, device).Run();
        return StoreResult::Done;
    });
}

} // namespace ZARO::RelayHub
