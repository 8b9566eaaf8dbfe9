#include "hub/store_moves.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace ZARO::RelayHub {

namespace {

/// A tunnel and where it is now.
struct Place {
    std::string id, user;
    TunnelPort port;
};

/// Whether no other process moves tunnels until this transaction ends.
bool IsOnlyMover(Database& database) {
    if (!database.IsShared()) {
        return true; // a transaction has the file for itself
    }
    Query lock(database, "SELECT 1 WHERE pg_try_advisory_xact_lock(7391825461)");
    return lock.Next();
}

#define ZARO_LOSING_RELAYS                                                                         \
    "(SELECT key FROM relay WHERE state = 'draining' OR ($2 = 1 AND owner <> ''"                   \
    " AND seen + $3 <= unixepoch()))"

/// Devices that have tunnels to move; on a server their rows are locked, and those that somebody
/// else has locked are left for later.
std::vector<std::int64_t> DevicesToMove(Database& database, std::size_t count, MoveFrom from,
                                        const RelayTimes& times) {
    Query rows(database,
               database.Sql("SELECT DISTINCT device FROM service WHERE relay IN" ZARO_LOSING_RELAYS
                            " ORDER BY device LIMIT $1",
                            "SELECT key FROM device WHERE key IN (SELECT device FROM service"
                            " WHERE relay IN" ZARO_LOSING_RELAYS ") ORDER BY key LIMIT $1"
                            " FOR UPDATE SKIP LOCKED"),
               static_cast<std::int64_t>(count), from == MoveFrom::DrainingAndDead ? 1 : 0,
               std::int64_t{times.dead.count()});
    std::vector<std::int64_t> devices;
    while (rows.Next()) {
        devices.push_back(rows.Integer(0));
    }
    return devices;
}

std::vector<Place> TunnelsToMove(Database& database, std::int64_t device, MoveFrom from,
                                 const RelayTimes& times) {
    Query rows(database,
               "SELECT id, relay_user, relay, relay_port FROM service WHERE device = $1"
               " AND relay IN" ZARO_LOSING_RELAYS " ORDER BY id",
               device, from == MoveFrom::DrainingAndDead ? 1 : 0, std::int64_t{times.dead.count()});
    std::vector<Place> places;
    while (rows.Next()) {
        places.push_back({rows.Text(0), rows.Text(1), {rows.Integer(2), rows.Int(3)}});
    }
    return places;
}

#undef ZARO_LOSING_RELAYS

/// A port with the same number at the best relay, else any port of a living relay.
std::optional<TunnelPort> NewPlace(Database& database, std::int64_t device, int port,
                                   RelayStore& relays, PortStore& ports) {
    const std::vector<std::int64_t> living = relays.Choose(database);
    if (living.empty()) {
        return std::nullopt;
    }
    const TunnelPort same{living.front(), port};
    return PortStore::AssignThis(database, same, device) ? same : ports.Assign(database, device);
}

} // namespace

StoreResult MoveStore::Move(MoveFrom from, std::size_t count, Changes& changes) {
    Changes moved;
    const StoreResult result = access_.Write("moving of tunnels", [&](Database& database) {
        moved = {};
        if (!IsOnlyMover(database)) {
            return StoreResult::Done;
        }
        const auto devices = DevicesToMove(database, count, from, relays_.Times());
        std::size_t tunnels = 0;
        for (std::size_t i = 0; i < devices.size() && tunnels < count; ++i) {
            tunnels += MoveDevice(database, devices[i], from, moved);
        }
        return StoreResult::Done;
    });
    if (result == StoreResult::Done) {
        changes.devices.insert(changes.devices.end(), moved.devices.begin(), moved.devices.end());
        changes.tunnels.insert(changes.tunnels.end(), moved.tunnels.begin(), moved.tunnels.end());
    }
    return result;
}

std::size_t MoveStore::MoveDevice(Database& database, std::int64_t device, MoveFrom from,
                                  Changes& changes) {
    std::size_t moved = 0;
    for (const Place& old : TunnelsToMove(database, device, from, relays_.Times())) {
        const auto place = NewPlace(database, device, old.port.port, relays_, ports_);
        if (!place) {
            break;
        }
        Query(database,
              "UPDATE service SET relay = $3, relay_port = $4, up = 0 WHERE device = $1"
              " AND id = $2",
              device, old.id, place->relay, place->port)
            .Run();
        PortStore::Free(database, old.port);
        changes.tunnels.push_back({old.port.relay, old.user});
        changes.tunnels.push_back({place->relay, old.user});
        ++moved;
    }
    if (moved > 0) {
        Query(database, "UPDATE device SET revision = revision % 2147483647 + 1 WHERE key = $1",
              device)
            .Run();
        changes.devices.push_back(device);
    }
    return moved;
}

} // namespace ZARO::RelayHub
