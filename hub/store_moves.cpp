#include "hub/store_moves.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace ZARO::RelayHub {

/// What a batch is to move; the names are those of the statements' values.
struct MovePlan {
    std::size_t count; ///< about so many tunnels
    int dead;          ///< 1 = also those of dead relays
    std::int64_t deadAfter, aliveFor;
    int keep; ///< 1 = only those that keep their port's number
};

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

/// Which tunnels move: those of relays that leave, with $2 = 1 also of dead ones. With $4 = 1 only
/// those whose port's number is free at a living relay.
#define ZARO_MOVES                                                                                 \
    " relay IN (SELECT key FROM relay WHERE state = 'draining' OR"                                 \
    " ($2 = 1 AND owner <> '' AND seen + $3 <= unixepoch()))"                                      \
    " AND ($4 = 0 OR EXISTS (SELECT 1 FROM port JOIN relay ON relay.key = port.relay"              \
    " WHERE port.port = service.relay_port AND port.device IS NULL AND state = 'up'"               \
    " AND seen + $5 > unixepoch()))"

/// Devices that have tunnels to move; on a server their rows are locked, and those that somebody
/// else has locked are left for later.
std::vector<std::int64_t> DevicesToMove(Database& database, const MovePlan& plan) {
    Query rows(database,
               database.Sql("SELECT DISTINCT device FROM service WHERE" ZARO_MOVES
                            " ORDER BY device LIMIT $1",
                            "SELECT key FROM device WHERE key IN (SELECT service.device"
                            " FROM service WHERE" ZARO_MOVES ") ORDER BY key LIMIT $1"
                            " FOR UPDATE SKIP LOCKED"),
               static_cast<std::int64_t>(plan.count), plan.dead, plan.deadAfter, plan.keep,
               plan.aliveFor);
    std::vector<std::int64_t> devices;
    while (rows.Next()) {
        devices.push_back(rows.Integer(0));
    }
    return devices;
}

std::vector<Place> TunnelsToMove(Database& database, std::int64_t device, const MovePlan& plan) {
    Query rows(database,
               "SELECT id, relay_user, relay, relay_port FROM service WHERE device = $1"
               " AND" ZARO_MOVES " ORDER BY id",
               device, plan.dead, plan.deadAfter, plan.keep, plan.aliveFor);
    std::vector<Place> places;
    while (rows.Next()) {
        places.push_back({rows.Text(0), rows.Text(1), {rows.Integer(2), rows.Int(3)}});
    }
    return places;
}

#undef ZARO_MOVES

void Bump(Database& database, std::int64_t device) {
    Query(database, "UPDATE device SET revision = revision % 2147483647 + 1 WHERE key = $1", device)
        .Run();
}

void MoveTunnel(Database& database, std::int64_t device, const Place& old, const TunnelPort& place,
                Changes& changes) {
    Query(database,
          "UPDATE service SET relay = $3, relay_port = $4, up = 0 WHERE device = $1 AND id = $2",
          device, old.id, place.relay, place.port)
        .Run();
    PortStore::Free(database, old.port);
    changes.tunnels.push_back({old.port.relay, old.user});
    changes.tunnels.push_back({place.relay, old.user});
}

/// A port with the same number, at the living relay with the fewest tunnels that has it.
std::optional<TunnelPort> SamePort(Database& database, std::int64_t device, int port,
                                   RelayStore& relays) {
    for (const std::int64_t relay : relays.Choose(database)) {
        if (PortStore::AssignThis(database, {relay, port}, device)) {
            return TunnelPort{relay, port};
        }
    }
    return std::nullopt;
}

} // namespace

StoreResult MoveStore::Move(MoveFrom from, std::size_t count, Changes& changes) {
    MovePlan plan{count, from == MoveFrom::DrainingAndDead ? 1 : 0, relays_.Times().dead.count(),
                  relays_.Times().alive.count(), 1};
    Changes moved;
    const StoreResult result = access_.Write("moving of tunnels", [&](Database& database) {
        moved = {};
        // What was read before may have a relay that is leaving by now.
        if (!IsOnlyMover(database) || !relays_.Refresh(database)) {
            return StoreResult::Done;
        }
        // Who needs another number comes last, lest it take one that a tunnel could keep.
        for (plan.keep = 1; plan.keep >= 0 && moved.tunnels.empty(); --plan.keep) {
            MoveBatch(database, plan, moved);
        }
        return StoreResult::Done;
    });
    if (result == StoreResult::Done) {
        changes.devices.insert(changes.devices.end(), moved.devices.begin(), moved.devices.end());
        changes.tunnels.insert(changes.tunnels.end(), moved.tunnels.begin(), moved.tunnels.end());
    }
    return result;
}

void MoveStore::MoveBatch(Database& database, const MovePlan& plan, Changes& changes) {
    for (const std::int64_t device : DevicesToMove(database, plan)) {
        if (changes.tunnels.size() / 2 >= plan.count) {
            return; // each is named twice
        }
        const std::size_t before = changes.tunnels.size();
        for (const Place& old : TunnelsToMove(database, device, plan)) {
            const auto place = plan.keep == 1 ? SamePort(database, device, old.port.port, relays_)
                                              : ports_.Assign(database, device);
            if (place) {
                MoveTunnel(database, device, old, *place, changes);
            } else if (plan.keep == 0) {
                break; // every port is taken
            }
        }
        if (changes.tunnels.size() > before) {
            Bump(database, device);
            changes.devices.push_back(device);
        }
    }
}

} // namespace ZARO::RelayHub
