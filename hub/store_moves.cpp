#include "hub/store_moves.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace ZARO::RelayHub {

/// A tunnel and where it is now.
struct MoveStore::Place {
    std::int64_t device;
    std::string id, user;
    TunnelPort port;
};

namespace {

/// Whether no other process moves tunnels until this transaction ends.
bool IsOnlyMover(Database& database) {
    if (!database.IsShared()) {
        return true; // a transaction has the file for itself
    }
    Query lock(database, "SELECT 1 WHERE pg_try_advisory_xact_lock(7391825461)");
    return lock.Next();
}

std::vector<std::int64_t> Keys(Query& rows) {
    std::vector<std::int64_t> keys;
    while (rows.Next()) {
        keys.push_back(rows.Integer(0));
    }
    return keys;
}

/// The relays that are to lose their tunnels.
std::vector<std::int64_t> LosingRelays(Database& database, const std::vector<RelayRecord>& dead) {
    Query draining(database, "SELECT key FROM relay WHERE state = 'draining' ORDER BY key");
    std::vector<std::int64_t> keys = Keys(draining);
    for (const RelayRecord& relay : dead) {
        Query still(database, "SELECT key FROM relay WHERE key = $1 AND seen = $2 AND epoch = $3",
                    relay.key, relay.seen, relay.epoch);
        for (const std::int64_t key : Keys(still)) {
            keys.push_back(key);
        }
    }
    return keys;
}

/// Makes the device's row this transaction's own. False when somebody else has it.
bool LockRow(Database& database, std::int64_t device) {
    Query row(database,
              database.Sql("SELECT key FROM device WHERE key = $1",
                           "SELECT key FROM device WHERE key = $1 FOR UPDATE SKIP LOCKED"),
              device);
    return !Keys(row).empty();
}

void Bump(Database& database, std::int64_t device) {
    Query(database, "UPDATE device SET revision = revision % 2147483647 + 1 WHERE key = $1", device)
        .Run();
}

} // namespace

StoreResult MoveStore::Move(const std::vector<RelayRecord>& dead, std::size_t count,
                            Changes& changes) {
    Changes moved;
    const StoreResult result = access_.Write("moving of tunnels", [&](Database& database) {
        moved = {};
        // What was read of the relays before may have one that is leaving by now.
        if (!IsOnlyMover(database) || !relays_.Refresh(database)) {
            return StoreResult::Done;
        }
        for (const std::int64_t relay : LosingRelays(database, dead)) {
            // Who needs another number comes last, lest it take one that a tunnel could keep.
            MoveSameNumbers(database, relay, count, moved);
            if (moved.tunnels.empty()) {
                MoveOthers(database, relay, count, moved);
            }
            if (!moved.tunnels.empty()) {
                break;
            }
        }
        for (const std::int64_t device : moved.devices) {
            Bump(database, device);
        }
        return StoreResult::Done;
    });
    if (result == StoreResult::Done) {
        changes.devices.insert(changes.devices.end(), moved.devices.begin(), moved.devices.end());
        changes.tunnels.insert(changes.tunnels.end(), moved.tunnels.begin(), moved.tunnels.end());
    }
    return result;
}

std::vector<MoveStore::Place> MoveStore::Places(Query& rows) {
    std::vector<Place> places;
    while (rows.Next()) {
        places.push_back(
            {rows.Integer(0), rows.Text(1), rows.Text(2), {rows.Integer(3), rows.Int(4)}});
    }
    return places;
}

void MoveStore::MoveSameNumbers(Database& database, std::int64_t relay, std::size_t count,
                                Changes& changes) {
    const std::vector<std::int64_t> living = relays_.Choose(database);
    for (const std::int64_t target : living) {
        std::vector<Place> places;
        {
            Query rows(database,
                       "SELECT service.device, id, relay_user, service.relay, relay_port"
                       " FROM service JOIN port ON port.relay = $2 AND port.port = relay_port"
                       " WHERE service.relay = $1 AND port.device IS NULL LIMIT $3",
                       relay, target, static_cast<std::int64_t>(count / living.size() + 1));
            places = Places(rows);
        }
        for (const Place& old : places) {
            const TunnelPort same{target, old.port.port};
            if (Hold(database, old, changes) && PortStore::AssignThis(database, same, old.device)) {
                MoveTunnel(database, old, same, changes);
            }
        }
    }
}

void MoveStore::MoveOthers(Database& database, std::int64_t relay, std::size_t count,
                           Changes& changes) {
    std::vector<Place> places;
    {
        Query rows(database,
                   "SELECT device, id, relay_user, relay, relay_port FROM service WHERE relay = $1"
                   " LIMIT $2",
                   relay, static_cast<std::int64_t>(count));
        places = Places(rows);
    }
    for (const Place& old : places) {
        if (Hold(database, old, changes)) {
            const std::optional<TunnelPort> port = ports_.Assign(database, old.device);
            if (!port) {
                return; // every port is taken
            }
            MoveTunnel(database, old, *port, changes);
        }
    }
}

bool MoveStore::Hold(Database& database, const Place& place, const Changes& changes) {
    const auto& held = changes.devices;
    if (std::find(held.begin(), held.end(), place.device) == held.end() &&
        !LockRow(database, place.device)) {
        return false;
    }
    Query still(database,
                "SELECT 1 FROM service WHERE device = $1 AND id = $2 AND relay = $3"
                " AND relay_port = $4",
                place.device, place.id, place.port.relay, place.port.port);
    return still.Next();
}

void MoveStore::MoveTunnel(Database& database, const Place& old, const TunnelPort& port,
                           Changes& changes) {
    Query(database,
          "UPDATE service SET relay = $3, relay_port = $4, up = 0 WHERE device = $1 AND id = $2",
          old.device, old.id, port.relay, port.port)
        .Run();
    PortStore::Free(database, old.port);
    changes.tunnels.push_back({old.port.relay, old.user});
    changes.tunnels.push_back({port.relay, old.user});
    auto& devices = changes.devices;
    if (std::find(devices.begin(), devices.end(), old.device) == devices.end()) {
        devices.push_back(old.device);
    }
}

} // namespace ZARO::RelayHub
