#include "hub/store_services.h"

#include <set>

#include "hub/secret.h"

namespace ZARO::RelayHub {

namespace {

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

int Bump(Database& database, std::int64_t device) {
    Query change(database,
                 "UPDATE device SET revision = revision % 2147483647 + 1 WHERE key = $1"
                 " RETURNING revision",
                 device);
    return change.Next() ? change.Int(0) : 0;
}

/// Adds the tunnels that a deletion returns to `gone`.
void Collect(Query& deletion, std::vector<TunnelKey>& gone) {
    while (deletion.Next()) {
        gone.push_back({0, deletion.Text(0)});
    }
}

void Remove(Database& database, std::int64_t device, const std::vector<std::string>& ids,
            std::vector<TunnelKey>& gone) {
    for (const std::string& id : ids) {
        Query deletion(database,
                       "DELETE FROM service WHERE device = $1 AND id = $2 RETURNING relay_user",
                       device, id);
        Collect(deletion, gone);
    }
}

void RemoveStale(Database& database, std::int64_t device, std::vector<TunnelKey>& gone) {
    Query deletion(database,
                   "DELETE FROM service WHERE device = $1 AND stale = 1 RETURNING relay_user",
                   device);
    Collect(deletion, gone);
}

void Refresh(Database& database, std::int64_t device, const std::vector<ServiceRecord>& services) {
    for (const ServiceRecord& service : services) {
        Query(database, "UPDATE service SET stale = 0 WHERE device = $1 AND id = $2", device,
              service.id)
            .Run();
    }
}

} // namespace

StoreResult ServiceStore::Update(std::int64_t device, const std::vector<ServiceRecord>& present,
                                 const std::vector<std::string>& removed,
                                 std::vector<TunnelKey>& gone) {
    std::vector<TunnelKey> users;
    const StoreResult result = access_.Write("service update", [&](Database& database) {
        // What goes makes room for what comes.
        Remove(database, device, removed, users);
        Refresh(database, device, present);
        RemoveStale(database, device, users);
        bool changed = !users.empty();
        for (const ServiceRecord& service : present) {
            const StoreResult put = Put(database, device, service, changed);
            if (put != StoreResult::Done) {
                return put;
            }
        }
        if (changed) {
            (void)Bump(database, device); // whoever waits for it reads it
        }
        return StoreResult::Done;
    });
    if (result == StoreResult::Done) {
        gone = std::move(users);
    }
    return result;
}

StoreResult ServiceStore::Put(Database& database, std::int64_t device, const ServiceRecord& service,
                              bool& changed) {
    {
        Query known(database,
                    "SELECT name, port, external_port FROM service WHERE device = $1 AND id = $2",
                    device, service.id);
        if (!known.Next()) {
            changed = true;
            return Add(database, device, service);
        }
        changed = changed || known.Text(0) != service.name || known.Int(1) != service.port ||
                  known.Int(2) != service.externalPort;
    }
    Query(
        database,
        "UPDATE service SET name = $1, port = $2, external_port = $3 WHERE device = $4 AND id = $5",
        service.name, service.port, service.externalPort, device, service.id)
        .Run();
    return StoreResult::Done;
}

StoreResult ServiceStore::Add(Database& database, std::int64_t device,
                              const ServiceRecord& service) {
    Query count(database, "SELECT count(*) FROM service WHERE device = $1", device);
    if (count.Next() && count.Int(0) >= kMaxServices) {
        return StoreResult::Full;
    }
    const std::optional<int> port = NextPort(database);
    if (!port) {
        shortages_.Log("store", "every port of %d-%d is taken", pool_.first, pool_.last);
        return StoreResult::Full;
    }
    Query(database,
          "INSERT INTO service(device, id, name, port, external_port, relay_port, relay_user,"
          " relay_password) VALUES($1, $2, $3, $4, $5, $6, $7, $8)",
          device, service.id, service.name, service.port, service.externalPort, *port,
          "t" + RandomText(15), RandomText(32))
        .Run();
    return StoreResult::Done;
}

/// Ports are handed out in turn, so that the address of a service that is gone leads nowhere for as
/// long as possible instead of to somebody else's service.
std::optional<int> ServiceStore::NextPort(Database& database) {
    int last = 0;
    {
        Query cursor(database, "SELECT port FROM port_cursor");
        last = cursor.Next() ? cursor.Int(0) : 0;
    }
    const int size = pool_.last - pool_.first + 1;
    const int start = last >= pool_.first && last <= pool_.last ? last - pool_.first + 1 : 0;
    for (int i = 0; i < size; ++i) {
        const int port = pool_.first + (start + i) % size;
        {
            Query used(database, "SELECT 1 FROM service WHERE relay_port = $1", port);
            if (used.Next()) {
                continue;
            }
        }
        if (!pool_.isFree || pool_.isFree(port)) {
            Query(database, "UPDATE port_cursor SET port = $1", port).Run();
            return port;
        }
    }
    return std::nullopt;
}

StoreResult ServiceStore::DropStale(std::int64_t device, std::vector<TunnelKey>& gone) {
    std::vector<TunnelKey> users;
    const StoreResult result = access_.Write("service removal", [&](Database& database) {
        RemoveStale(database, device, users);
        if (!users.empty()) {
            (void)Bump(database, device);
        }
        return StoreResult::Done;
    });
    if (result == StoreResult::Done) {
        gone = std::move(users);
    }
    return result;
}

StoreResult ServiceStore::ListTunnels(std::int64_t device, std::vector<TunnelRecord>& tunnels) {
    return access_.Read("tunnel list", [&](Database& database) {
        std::vector<TunnelRecord> found;
        Query rows(database,
                   "SELECT device, id, name, port, relay_port, relay_user, relay_password"
                   " FROM service WHERE device = $1 ORDER BY id",
                   device);
        while (rows.Next()) {
            found.push_back(TunnelOf(rows));
        }
        tunnels = std::move(found);
        return StoreResult::Done;
    });
}

StoreResult ServiceStore::FindTunnel(const std::string& user, TunnelRecord& tunnel) {
    return access_.Read("tunnel look-up", [&](Database& database) {
        Query row(database,
                  "SELECT device, id, name, port, relay_port, relay_user, relay_password"
                  " FROM service WHERE relay_user = $1",
                  user);
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
    std::set<std::int64_t> devices;
    for (const TunnelStatus& change : changes) {
        devices.insert(change.device);
    }
    return access_.Write("status change", [&](Database& database) {
        for (const std::int64_t device : devices) {
            (void)Bump(database, device); // whoever waits for it reads it
        }
        return StoreResult::Done;
    });
}

} // namespace ZARO::RelayHub
