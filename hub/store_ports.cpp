#include "hub/store_ports.h"

namespace ZARO::RelayHub {

namespace {

/// How many ports that other programs use are passed over for one service.
constexpr std::size_t kTries = 64;

/// The port that has been free for longest becomes the device's.
std::optional<int> TakeLongestFree(Database& database, std::int64_t relay, std::int64_t device) {
    Query take(database,
               database.Sql("UPDATE port SET device = $2 WHERE relay = $1 AND port ="
                            " (SELECT port FROM port WHERE relay = $1 AND device IS NULL"
                            " ORDER BY freed, port LIMIT 1) RETURNING port",
                            "UPDATE port SET device = $2 WHERE relay = $1 AND port ="
                            " (SELECT port FROM port WHERE relay = $1 AND device IS NULL"
                            " ORDER BY freed, port LIMIT 1 FOR UPDATE SKIP LOCKED)"
                            " RETURNING port"),
               relay, device);
    return take.Next() ? std::optional<int>(take.Int(0)) : std::nullopt;
}

} // namespace

void PortStore::UseRelay(std::int64_t relay, std::function<bool(int)> isFree) {
    isFree_ = std::move(isFree);
    relay_ = relay; // others may be assigning ports already
}

StoreResult PortStore::Join(std::int64_t relay, int first, int last) {
    return access_.Write("joining of ports", [&](Database& database) {
        Query(database,
              "WITH RECURSIVE wanted(port) AS (SELECT CAST($2 AS BIGINT)"
              " UNION ALL SELECT port + 1 FROM wanted WHERE port < $3)"
              " INSERT INTO port(relay, port, device) SELECT $1, port,"
              " (SELECT device FROM service WHERE relay = $1 AND relay_port = wanted.port)"
              " FROM wanted WHERE true ON CONFLICT DO NOTHING",
              relay, first, last)
            .Run();
        Query(database, "DELETE FROM port WHERE relay = $1 AND port NOT BETWEEN $2 AND $3", relay,
              first, last)
            .Run();
        // An administrator may have removed a device by hand.
        Query(database,
              "UPDATE port SET device = NULL, freed = unixepoch() WHERE relay = $1"
              " AND device IS NOT NULL AND NOT EXISTS (SELECT 1 FROM service"
              " WHERE service.relay = port.relay AND relay_port = port.port)",
              relay)
            .Run();
        return StoreResult::Done;
    });
}

std::optional<TunnelPort> PortStore::Assign(Database& database, std::int64_t device) {
    const std::vector<std::int64_t> relays =
        choice_ ? choice_(database) : std::vector<std::int64_t>{relay_};
    if (relays.empty()) { // the device is to try again soon
        throw DatabaseFault("no relay is alive");
    }
    for (const std::int64_t relay : relays) {
        const std::optional<TunnelPort> port = AssignAt(database, relay, device);
        if (port) {
            return port;
        }
    }
    shortages_.Log("store", "every port is taken");
    return std::nullopt;
}

std::optional<TunnelPort> PortStore::AssignAt(Database& database, std::int64_t relay,
                                              std::int64_t device) {
    std::vector<TunnelPort> passed; // freed at the end, as they would come again before
    std::optional<TunnelPort> found;
    while (!found && passed.size() < kTries) {
        const std::optional<int> port = TakeLongestFree(database, relay, device);
        if (!port) {
            break;
        }
        if (relay == relay_ && isFree_ && !isFree_(*port)) {
            passed.push_back({relay, *port});
        } else {
            found = TunnelPort{relay, *port};
        }
    }
    for (const TunnelPort& port : passed) {
        Free(database, port);
    }
    if (!passed.empty()) {
        foreign_.Log("store", "another program uses port %d; %zu such ports were passed over",
                     passed.front().port, passed.size());
    }
    return found;
}

bool PortStore::AssignThis(Database& database, const TunnelPort& port, std::int64_t device) {
    Query take(database,
               "UPDATE port SET device = $3 WHERE relay = $1 AND port = $2 AND device IS NULL"
               " RETURNING port",
               port.relay, port.port, device);
    return take.Next();
}

void PortStore::Free(Database& database, const TunnelPort& port) {
    Query(database,
          "UPDATE port SET device = NULL, freed = unixepoch() WHERE relay = $1 AND port = $2",
          port.relay, port.port)
        .Run();
}

} // namespace ZARO::RelayHub
