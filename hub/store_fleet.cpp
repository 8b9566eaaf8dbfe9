#include "hub/store_fleet.h"

#include <optional>

namespace ZARO::RelayHub {

namespace {

/// The columns in the order of the queries below.
FleetDevice DeviceOf(const Query& row) {
    FleetDevice device;
    device.key = row.Integer(0);
    device.serial = row.Text(1);
    device.serverId = row.Text(2);
    device.alias = row.Text(3);
    device.mac = row.Text(4);
    device.registered = row.Integer(5);
    device.admitted = row.Integer(6);
    device.banned = row.Integer(7);
    device.services = row.Integer(8);
    device.up = row.Integer(9);
    return device;
}

std::vector<FleetDevice> AllOf(Query& rows) {
    std::vector<FleetDevice> devices;
    while (rows.Next()) {
        devices.push_back(DeviceOf(rows));
    }
    return devices;
}

std::vector<FleetService> ServicesOf(Database& database, std::int64_t device) {
    Query rows(database,
               "SELECT service.id, service.name, service.port, relay.name, relay.host,"
               " service.relay_port, service.up FROM service JOIN relay ON relay.key ="
               " service.relay WHERE service.device = $1 ORDER BY service.id",
               device);
    std::vector<FleetService> services;
    while (rows.Next()) {
        services.push_back({rows.Text(0), rows.Text(1), rows.Int(2), rows.Text(3), rows.Text(4),
                            rows.Int(5), rows.Int(6) != 0});
    }
    return services;
}

} // namespace

StoreResult FleetStore::Count(std::int64_t alive, FleetCounts& counts) {
    return access_.Read("count of the fleet", [&](Database& database) {
        Query row(database,
                  "SELECT unixepoch(),"
                  " (SELECT count(*) FROM device WHERE serial NOT IN (SELECT serial FROM ban)),"
                  " (SELECT count(DISTINCT device) FROM service WHERE up <> 0),"
                  " (SELECT count(*) FROM pending WHERE last_asked + 86400 > unixepoch()),"
                  " (SELECT count(*) FROM ban),"
                  " (SELECT count(*) FROM invitation WHERE uses > 0 AND expires > unixepoch()),"
                  " (SELECT count(*) FROM service), (SELECT count(*) FROM service WHERE up <> 0),"
                  " (SELECT count(*) FROM relay WHERE owner <> ''),"
                  " (SELECT count(*) FROM relay WHERE owner <> '' AND seen + $1 > unixepoch())",
                  alive);
        if (!row.Next()) {
            return StoreResult::NotFound;
        }
        counts = {row.Integer(0), row.Integer(1), row.Integer(2), row.Integer(3), row.Integer(4),
                  row.Integer(5), row.Integer(6), row.Integer(7), row.Integer(8), row.Integer(9)};
        return StoreResult::Done;
    });
}

StoreResult FleetStore::Admitted(std::int64_t after, std::size_t count,
                                 std::vector<FleetDevice>& devices) {
    return access_.Read("list of the devices", [&](Database& database) {
        Query rows(database,
                   "SELECT device.key, serial, server_id, alias.name, mac, registered, admitted_at,"
                   " 0, (SELECT count(*) FROM service WHERE service.device = device.key),"
                   " (SELECT count(*) FROM service WHERE service.device = device.key AND up <> 0)"
                   " FROM device LEFT JOIN alias ON alias.device = device.key"
                   " WHERE device.key > $1 AND serial NOT IN (SELECT serial FROM ban)"
                   " ORDER BY device.key LIMIT $2",
                   after, static_cast<std::int64_t>(count));
        devices = AllOf(rows);
        return StoreResult::Done;
    });
}

StoreResult FleetStore::Banned(const std::string& after, std::size_t count,
                               std::vector<FleetDevice>& devices) {
    return access_.Read("list of the bans", [&](Database& database) {
        Query rows(database,
                   "SELECT device.key, ban.serial, server_id, alias.name, mac, registered,"
                   " admitted_at, since, 0, 0 FROM ban LEFT JOIN device"
                   " ON device.serial = ban.serial LEFT JOIN alias ON alias.device = device.key"
                   " WHERE ban.serial > $1 ORDER BY ban.serial LIMIT $2",
                   after, static_cast<std::int64_t>(count));
        devices = AllOf(rows);
        return StoreResult::Done;
    });
}

StoreResult FleetStore::Find(const std::string& text, const std::string& kind,
                             std::vector<std::string>& serials) {
    return access_.Read("look-up of a device", [&](Database& database) {
        serials.clear();
        Query rows(database,
                   "SELECT serial FROM device WHERE ($2 IN ('', 'serial') AND serial = $1)"
                   " OR ($2 IN ('', 'id') AND server_id = $1) OR ($2 IN ('', 'alias')"
                   " AND key IN (SELECT device FROM alias WHERE name = $1))"
                   " UNION SELECT serial FROM pending WHERE $2 IN ('', 'serial') AND serial = $1"
                   " UNION SELECT serial FROM ban WHERE $2 IN ('', 'serial') AND serial = $1",
                   text, kind);
        while (rows.Next()) {
            serials.push_back(rows.Text(0));
        }
        return serials.empty() ? StoreResult::NotFound : StoreResult::Done;
    });
}

StoreResult FleetStore::Read(const std::string& serial, FleetDetail& detail) {
    return access_.Read("look at a device", [&](Database& database) {
        detail = {};
        {
            Query row(database,
                      "SELECT device.key, known.serial, server_id, alias.name, mac, registered,"
                      " admitted_at, since, 0, 0, timezone, network"
                      " FROM (SELECT serial FROM device WHERE serial = $1"
                      " UNION SELECT serial FROM ban WHERE serial = $1) AS known"
                      " LEFT JOIN device ON device.serial = known.serial"
                      " LEFT JOIN ban ON ban.serial = known.serial"
                      " LEFT JOIN alias ON alias.device = device.key",
                      serial);
            if (!row.Next()) {
                return StoreResult::NotFound;
            }
            detail.device = DeviceOf(row);
            detail.timezone = row.Text(10);
            detail.network = row.Text(11);
        }
        detail.services = ServicesOf(database, detail.device.key);
        for (const FleetService& service : detail.services) {
            ++detail.device.services;
            detail.device.up += service.up ? 1 : 0;
        }
        return StoreResult::Done;
    });
}

StoreResult FleetStore::Relays(std::int64_t alive, std::vector<FleetRelay>& relays) {
    return access_.Read("look at the relays", [&](Database& database) {
        relays.clear();
        Query rows(database,
                   "SELECT name, host, state, CASE WHEN seen + $1 > unixepoch() THEN 1 ELSE 0 END,"
                   " seen, first_port, last_port,"
                   " (SELECT count(*) FROM service WHERE service.relay = relay.key),"
                   " (SELECT count(*) FROM service WHERE service.relay = relay.key AND up <> 0)"
                   " FROM relay WHERE owner <> '' ORDER BY name",
                   alive);
        while (rows.Next()) {
            relays.push_back({rows.Text(0), rows.Text(1), rows.Text(2), rows.Int(3) != 0,
                              rows.Integer(4), rows.Int(5), rows.Int(6), rows.Integer(7),
                              rows.Integer(8)});
        }
        return StoreResult::Done;
    });
}

StoreResult FleetStore::Now(std::int64_t& now) {
    return access_.Read("look at the clock", [&](Database& database) {
        Query clock(database, "SELECT unixepoch()");
        now = clock.Next() ? clock.Integer(0) : 0;
        return StoreResult::Done;
    });
}

} // namespace ZARO::RelayHub
