#include "hub/store_aliases.h"

namespace ZARO::RelayHub {

namespace {

/// The device whose name it is; 0 = `device` may have it.
std::int64_t OwnerOf(Database& database, const std::string& name, std::int64_t device) {
    Query owner(database,
                "SELECT device FROM alias WHERE name = $1"
                " AND (expires > unixepoch() OR device = $2)",
                name, device);
    return owner.Next() ? owner.Integer(0) : 0;
}

} // namespace

StoreResult AliasStore::Map(const std::string& name, std::int64_t device,
                            std::chrono::seconds ttl) {
    return access_.Write("alias mapping", [&](Database& database) {
        if (!LockDevice(database, device)) {
            return StoreResult::Refused;
        }
        const std::int64_t owner = OwnerOf(database, name, device);
        if (owner != 0 && owner != device) {
            return StoreResult::Taken;
        }
        // Only what was free when it was looked at: another device may have taken it since.
        Query(database,
              "DELETE FROM alias WHERE device = $1 OR (name = $2 AND expires <= unixepoch())",
              device, name)
            .Run();
        Query(database, "INSERT INTO alias(name, device, expires) VALUES($1, $2, unixepoch() + $3)",
              name, device, ttl.count())
            .Run();
        return StoreResult::Done;
    });
}

StoreResult AliasStore::Keep(const std::string& name, std::int64_t device,
                             std::chrono::seconds ttl) {
    return access_.Write("alias renewal", [&](Database& database) {
        if (!LockDevice(database, device)) {
            return StoreResult::Refused;
        }
        const std::int64_t owner = OwnerOf(database, name, device);
        if (owner != device) {
            return owner == 0 ? StoreResult::NotFound : StoreResult::Taken;
        }
        Query(database,
              "UPDATE alias SET expires = unixepoch() + $1 WHERE name = $2 AND device = $3",
              ttl.count(), name, device)
            .Run();
        return StoreResult::Done;
    });
}

StoreResult AliasStore::Delete(const std::string& name, std::int64_t device) {
    return access_.Write("alias removal", [&](Database& database) {
        if (OwnerOf(database, name, device) != device) {
            return StoreResult::NotFound; // also when it is another device's
        }
        Query(database, "DELETE FROM alias WHERE name = $1 AND device = $2", name, device).Run();
        return StoreResult::Done;
    });
}

StoreResult AliasStore::Find(const std::string& name, Device& device) {
    return access_.Read("alias look-up", [&](Database& database) {
        Query row(database,
                  "SELECT device.key, server_id FROM alias JOIN device ON device.key = alias.device"
                  " WHERE name = $1 AND expires > unixepoch()",
                  name);
        if (!row.Next()) {
            return StoreResult::NotFound;
        }
        device = {row.Integer(0), row.Text(1)};
        return StoreResult::Done;
    });
}

} // namespace ZARO::RelayHub
