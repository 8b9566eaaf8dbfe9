#include "hub/store_services.h"

#include <map>
#include <optional>
#include <set>
#include <utility>

#include "base/json.h"
#include "hub/secret.h"

namespace ZARO::RelayHub {

namespace {

/// `row` is of the view that shows tunnels with their relays.
TunnelRecord TunnelOf(const Query& row) {
    TunnelRecord tunnel;
    tunnel.device = row.Integer(0);
    tunnel.id = row.Text(1);
    tunnel.name = row.Text(2);
    tunnel.port = row.Int(3);
    tunnel.relay = row.Integer(4);
    tunnel.relayHost = row.Text(5);
    tunnel.relayPort = row.Int(6);
    tunnel.user = row.Text(7);
    tunnel.password = row.Text(8);
    tunnel.up = row.Int(9) != 0;
    return tunnel;
}

std::vector<TunnelRecord> TunnelsOfRows(Query& rows) {
    std::vector<TunnelRecord> tunnels;
    while (rows.Next()) {
        tunnels.push_back(TunnelOf(rows));
    }
    return tunnels;
}

bool IsAdmitted(Database& database, std::int64_t device) {
    Query row(database,
              "SELECT 1 FROM device WHERE key = $1"
              " AND NOT EXISTS (SELECT 1 FROM ban WHERE ban.serial = device.serial)",
              device);
    return row.Next();
}

int Bump(Database& database, std::int64_t device) {
    Query change(database,
                 "UPDATE device SET revision = revision % 2147483647 + 1 WHERE key = $1"
                 " RETURNING revision",
                 device);
    return change.Next() ? change.Int(0) : 0;
}

/// The names as the keys of a JSON object, which one statement can take whatever their number.
std::string AsKeys(const std::set<std::string>& names) {
    Json::Value object(Json::objectValue);
    for (const std::string& name : names) {
        object[name] = 1;
    }
    return json::Compact(object);
}

/// Gives the lists of all these devices their next revisions. The rows are locked in one order, so
/// that two hosts don't wait for each other.
void BumpAll(Database& database, const std::set<std::string>& devices) {
    const std::string keys = AsKeys(devices);
    if (database.IsShared()) {
        Query(database,
              "SELECT key FROM device WHERE key IN"
              " (SELECT CAST(key AS BIGINT) FROM json_each($1)) ORDER BY key FOR UPDATE",
              keys)
            .Run();
    }
    Query(database,
          "UPDATE device SET revision = revision % 2147483647 + 1 WHERE key IN"
          " (SELECT CAST(key AS BIGINT) FROM json_each($1))",
          keys)
        .Run();
}

/// Removes one service, and frees its port.
void Remove(Database& database, std::int64_t device, const std::string& id,
            std::vector<TunnelKey>& gone) {
    Query deletion(database,
                   "DELETE FROM service WHERE device = $1 AND id = $2"
                   " RETURNING relay, relay_user, relay_port",
                   device, id);
    if (deletion.Next()) {
        gone.push_back({deletion.Integer(0), deletion.Text(1)});
        PortStore::Free(database, {deletion.Integer(0), deletion.Int(2)});
    }
}

/// A service as the database has it.
struct KnownService {
    ServiceRecord record;
    bool isStale = false;
};
using KnownServices = std::map<std::string, KnownService>; // by id

KnownServices ServicesOf(Database& database, std::int64_t device) {
    KnownServices services;
    Query rows(database,
               "SELECT id, name, port, external_port, stale FROM service WHERE device = $1",
               device);
    while (rows.Next()) {
        services[rows.Text(0)] = {{rows.Text(0), rows.Text(1), rows.Int(2), rows.Int(3)},
                                  rows.Int(4) != 0};
    }
    return services;
}

bool IsSame(const ServiceRecord& known, const ServiceRecord& service) {
    return known.name == ValidText(service.name) && known.port == service.port &&
           known.externalPort == service.externalPort;
}

void Change(Database& database, std::int64_t device, const ServiceRecord& service) {
    Query(database,
          "UPDATE service SET name = $3, port = $4, external_port = $5 WHERE device = $1"
          " AND id = $2",
          device, service.id, service.name, service.port, service.externalPort)
        .Run();
}

/// Removes the stale services but those in `present`, which are stale no more.
void SettleStale(Database& database, std::int64_t device, const std::vector<ServiceRecord>& present,
                 KnownServices& known, std::vector<TunnelKey>& gone) {
    bool hasRefreshed = false;
    for (const ServiceRecord& service : present) {
        const auto found = known.find(service.id);
        if (found != known.end() && found->second.isStale) {
            found->second.isStale = false;
            hasRefreshed = true;
        }
    }
    for (auto service = known.begin(); service != known.end();) {
        if (service->second.isStale) {
            Remove(database, device, service->first, gone);
            service = known.erase(service);
        } else {
            ++service;
        }
    }
    if (hasRefreshed) {
        Query(database, "UPDATE service SET stale = 0 WHERE device = $1 AND stale <> 0", device)
            .Run();
    }
}

} // namespace

StoreResult ServiceStore::Update(std::int64_t device, const std::vector<ServiceRecord>& present,
                                 const std::vector<std::string>& removed,
                                 std::vector<TunnelKey>& touched) {
    std::vector<TunnelKey> users;
    const StoreResult result = access_.Write("service update", [&](Database& database) {
        users.clear();
        if (!LockDevice(database, device)) {
            return StoreResult::NotFound;
        }
        KnownServices known = ServicesOf(database, device);
        // What goes makes room for what comes.
        for (const std::string& id : removed) {
            Remove(database, device, id, users);
            known.erase(id);
        }
        SettleStale(database, device, present, known, users);
        bool changed = !users.empty();
        for (const ServiceRecord& service : present) {
            const auto found = known.find(service.id);
            if (found != known.end() && IsSame(found->second.record, service)) {
                continue;
            }
            if (found != known.end()) {
                Change(database, device, service);
            } else if (known.size() >= kMaxServices || !Add(database, device, service, users)) {
                return StoreResult::Full;
            }
            known[service.id].record = service;
            known[service.id].record.name = ValidText(service.name);
            changed = true;
        }
        if (changed) {
            (void)Bump(database, device); // whoever waits for it reads it
        }
        return StoreResult::Done;
    });
    if (result == StoreResult::Done) {
        touched = std::move(users);
    }
    return result;
}

bool ServiceStore::Add(Database& database, std::int64_t device, const ServiceRecord& service,
                       std::vector<TunnelKey>& touched) {
    const std::optional<TunnelPort> port = ports_.Assign(database, device);
    if (!port) {
        return false;
    }
    touched.push_back({port->relay, "t" + RandomText(15)});
    Query(
        database,
        "INSERT INTO service(device, id, name, port, external_port, relay, relay_port, relay_user,"
        " relay_password) VALUES($1, $2, $3, $4, $5, $6, $7, $8, $9)",
        device, service.id, service.name, service.port, service.externalPort, port->relay,
        port->port, touched.back().user, RandomText(32))
        .Run();
    return true;
}

void ServiceStore::RemoveAll(Database& database, std::int64_t device,
                             std::vector<TunnelKey>& gone) {
    for (const auto& [id, service] : ServicesOf(database, device)) {
        Remove(database, device, id, gone);
    }
    (void)Bump(database, device);
}

StoreResult ServiceStore::DropStale(std::int64_t device, std::vector<TunnelKey>& touched) {
    std::vector<TunnelKey> users;
    const StoreResult result = access_.Write("service removal", [&](Database& database) {
        users.clear();
        (void)LockDevice(database, device); // one that is gone has no services
        KnownServices known = ServicesOf(database, device);
        SettleStale(database, device, {}, known, users);
        if (!users.empty()) {
            (void)Bump(database, device);
        }
        return StoreResult::Done;
    });
    if (result == StoreResult::Done) {
        touched = std::move(users);
    }
    return result;
}

StoreResult ServiceStore::ListTunnels(std::int64_t device, std::vector<TunnelRecord>& tunnels) {
    return access_.Read("tunnel list", [&](Database& database) {
        Query rows(database, "SELECT * FROM tunnel WHERE device = $1 ORDER BY id", device);
        tunnels = TunnelsOfRows(rows);
        // A device that is banned or gone has none.
        return !tunnels.empty() || IsAdmitted(database, device) ? StoreResult::Done
                                                                : StoreResult::NotFound;
    });
}

StoreResult ServiceStore::TunnelsOf(std::int64_t relay, std::vector<TunnelRecord>& tunnels) {
    return access_.Read("list of a relay's tunnels", [&](Database& database) {
        Query rows(database, "SELECT * FROM tunnel WHERE relay = $1", relay);
        tunnels = TunnelsOfRows(rows);
        return StoreResult::Done;
    });
}

bool ServiceStore::HasTunnels(std::int64_t relay) {
    return access_.Read("look for tunnels", [&](Database& database) {
        Query any(database, "SELECT 1 FROM service WHERE relay = $1 LIMIT 1", relay);
        return any.Next() ? StoreResult::Done : StoreResult::NotFound;
    }) == StoreResult::Done;
}

StoreResult ServiceStore::FindTunnel(const std::string& user, TunnelRecord& tunnel) {
    return access_.Read("tunnel look-up", [&](Database& database) {
        Query row(database, "SELECT * FROM tunnel WHERE relay_user = $1", user);
        if (!row.Next()) {
            return StoreResult::NotFound;
        }
        tunnel = TunnelOf(row);
        return StoreResult::Done;
    });
}

StoreResult ServiceStore::Revision(std::int64_t device, int& revision) {
    return access_.Read("revision look-up", [&](Database& database) {
        Query row(database, "SELECT revision FROM device WHERE key = $1", device);
        if (!row.Next()) {
            return StoreResult::NotFound;
        }
        revision = row.Int(0);
        return StoreResult::Done;
    });
}

StoreResult ServiceStore::BumpRevision(std::int64_t device, int& revision) {
    int bumped = 0;
    const StoreResult result = access_.Write("revision change", [&](Database& database) {
        bumped = Bump(database, device);
        return StoreResult::Done;
    });
    if (result == StoreResult::Done) {
        revision = bumped;
    }
    return result;
}

StoreResult ServiceStore::ReportStatus(const std::vector<TunnelStatus>& changes) {
    std::set<std::string> devices;
    std::map<std::pair<std::int64_t, bool>, std::set<std::string>> users;
    for (const TunnelStatus& change : changes) {
        devices.insert(std::to_string(change.device));
        users[{change.relay, change.up}].insert(change.user);
    }
    return access_.Write("status change", [&](Database& database) {
        BumpAll(database, devices);
        for (const auto& [relayAndUp, names] : users) {
            Query(database,
                  "UPDATE service SET up = $2 WHERE ($3 = 0 OR relay = $3) AND relay_user IN"
                  " (SELECT key FROM json_each($1))",
                  AsKeys(names), relayAndUp.second ? 1 : 0, relayAndUp.first)
                .Run();
        }
        return StoreResult::Done;
    });
}

StoreResult ServiceStore::ReportRelayDown(std::int64_t relay) {
    return access_.Write("start of a relay", [relay](Database& database) {
        std::set<std::string> devices;
        {
            Query rows(database, "SELECT DISTINCT device FROM service WHERE relay = $1", relay);
            while (rows.Next()) {
                devices.insert(rows.Text(0));
            }
        }
        BumpAll(database, devices);
        Query(database, "UPDATE service SET up = 0 WHERE relay = $1 AND up <> 0", relay).Run();
        return StoreResult::Done;
    });
}

} // namespace ZARO::RelayHub
