#include "hub/store_aliases.h"

#include <ctime>

namespace ZARO::RelayHub {

namespace {

std::int64_t Now() {
    return time(nullptr);
}

/// The device whose name it is; 0 = `device` may have it.
std::int64_t OwnerOf(Database& database, const std::string& name, std::int64_t device) {
    Query owner(database,
                "SELECT device FROM alias WHERE name = $1 AND (expires > $2 OR device = $3)", name,
                Now(), device);
    return owner.Next() ? owner.Integer(0) : 0;
}

} // namespace

StoreResult AliasStore::Map(const std::string& name, std::int64_t device,
                            std::chrono::seconds ttl) {
    return access_.Write("alias mapping", [&](Database& database) {
        const std::int64_t owner = OwnerOf(database, name, device);
        if (owner != 0 && owner != device) {
            return StoreResult::Taken;
        }
        Query(database, "DELETE FROM alias WHERE device = $1 OR name = $2", device, name).Run();
        Query(database, "INSERT INTO alias(name, device, expires) VALUES($1, $2, $3)", name, device,
              Now() + ttl.count())
            .Run();
        return StoreResult::Done;
    });
}

StoreResult AliasStore::Keep(const std::string& name, std::int64_t device,
                             std::chrono::seconds ttl) {
    return access_.Write("alias renewal", [&](Database& database) {
        const std::int64_t owner = OwnerOf(database, name, device);
        if (owner != device) {
            return owner == 0 ? StoreResult::NotFound : StoreResult::Taken;
        }
        Query(database, "UPDATE alias SET expires = $1 WHERE name = $2", Now() + ttl.count(), name)
            .Run();
        return StoreResult::Done;
    });
}

StoreResult AliasStore::Delete(const std::string& name, std::int64_t device) {
    return access_.Write("alias removal", [&](Database& database) {
        if (OwnerOf(database, name, device) != device) {
            return StoreResult::NotFound; // also when it is another device's
        }
        Query(database, "DELETE FROM alias WHERE name = $1", name).Run();
        return StoreResult::Done;
    });
}

StoreResult AliasStore::Find(const std::string& name, Device& device) {
    return access_.Read("alias look-up", [&](Database& database) {
        Query row(database,
                  "SELECT device.key, server_id FROM alias JOIN device ON device.key = alias.device"
                  " WHERE name = $1 AND expires > $2",
                  name, Now());
        if (!row.Next()) {
            return StoreResult::NotFound;
        }
        device = {row.Integer(0), row.Text(1)};
        return StoreResult::Done;
    });
}

} // namespace ZARO::RelayHub
