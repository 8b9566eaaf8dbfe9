#include "hub/store_relays.h"

#include <algorithm>
#include <utility>

namespace ZARO::RelayHub {

namespace {

constexpr std::chrono::seconds kFresh(1);
constexpr std::chrono::seconds kSshPortFresh(5);

std::int64_t Seconds(std::chrono::seconds time) {
    return time.count();
}

RelayRecord RelayOf(const Query& row) {
    RelayRecord relay;
    relay.key = row.Integer(0);
    relay.name = row.Text(1);
    relay.host = row.Text(2);
    relay.firstPort = row.Int(3);
    relay.lastPort = row.Int(4);
    relay.load = row.Integer(5);
    relay.seen = row.Integer(6);
    relay.epoch = row.Integer(7);
    return relay;
}

std::vector<RelayRecord> AllOf(Query& rows) {
    std::vector<RelayRecord> relays;
    while (rows.Next()) {
        relays.push_back(RelayOf(rows));
    }
    return relays;
}

std::vector<RelayRecord> ReadAlive(Database& database, const RelayTimes& times) {
    Query rows(database,
               "SELECT key, name, host, first_port, last_port, load, seen, epoch FROM relay"
               " WHERE state = 'up' AND seen + $1 > unixepoch() ORDER BY key",
               Seconds(times.alive));
    return AllOf(rows);
}

/// What the database knows of the relay that somebody wants to become. Makes a row for a new one.
struct FormerRelay {
    FormerRelay(Database& database, const std::string& name, const RelayTimes& times) {
        Query(database, "INSERT INTO relay(name) VALUES($1) ON CONFLICT DO NOTHING", name).Run();
        Query row(database,
                  database.Sql("SELECT key, name, host, first_port, last_port, load, seen, epoch,"
                               " owner, key_text, seen + $2 > unixepoch() FROM relay"
                               " WHERE name = $1",
                               "SELECT key, name, host, first_port, last_port, load, seen, epoch,"
                               " owner, key_text, CAST(seen + $2 > unixepoch() AS INTEGER)"
                               " FROM relay WHERE name = $1 FOR UPDATE"),
                  name, Seconds(times.alive));
        if (!row.Next()) {
            throw DatabaseFault("the relay's row is gone", FaultKind::Conflict);
        }
        relay = RelayOf(row);
        owner = row.Text(8);
        relay.hostKey = row.Text(9);
        isAlive = row.Int(10) != 0;
        while (row.Next()) {
        }
    }

    RelayRecord relay;
    std::string owner;
    bool isAlive = false;
};

/// What the relay is from now on.
RelayRecord Merge(RelayRecord relay, const RelayIdentity& identity, bool isShared) {
    relay.host = identity.host;
    if (identity.firstPort != 0) {
        relay.firstPort = identity.firstPort;
        relay.lastPort = identity.lastPort;
    }
    if (!isShared || relay.hostKey.empty()) {
        relay.hostKey = identity.hostKey;
    }
    relay.load = 0;
    ++relay.epoch;
    return relay;
}

} // namespace

StoreResult RelayStore::Join(const RelayIdentity& identity, RelayRecord& relay) {
    return access_.Write("joining of the relay", [&](Database& database) {
        const FormerRelay former(database, identity.name, times_);
        if (former.isAlive && former.owner != identity.owner) {
            relay = former.relay;
            relay.hostKey.clear();
            return StoreResult::Taken;
        }
        relay = Merge(former.relay, identity, database.IsShared());
        // On one host the key stays in the data folder.
        const std::string kept = database.IsShared() ? relay.hostKey : "";
        Query(
            database,
            "UPDATE relay SET host = $2, owner = $3, key_text = $4, first_port = $5,"
            " last_port = $6, load = 0, state = 'up', seen = unixepoch(), epoch = $7, ssh_port = $8"
            " WHERE key = $1",
            relay.key, relay.host, identity.owner, kept, relay.firstPort, relay.lastPort,
            relay.epoch, identity.sshPort)
            .Run();
        return StoreResult::Done;
    });
}

StoreResult RelayStore::Beat(const RelayRecord& relay, std::int64_t load) {
    return access_.Write("life sign", [&](Database& database) {
        Query beat(database,
                   "UPDATE relay SET seen = unixepoch(), load = $3 WHERE key = $1 AND epoch = $2"
                   " RETURNING key",
                   relay.key, relay.epoch, load);
        return beat.Next() ? StoreResult::Done : StoreResult::Refused;
    });
}

StoreResult RelayStore::SetDraining(const RelayRecord& relay) {
    return access_.Write("draining of the relay", [&](Database& database) {
        Query(database, "UPDATE relay SET state = 'draining' WHERE key = $1 AND epoch = $2",
              relay.key, relay.epoch)
            .Run();
        return StoreResult::Done;
    });
}

StoreResult RelayStore::Drain(const std::string& name, Drained& drained) {
    return access_.Write("draining of a relay", [&](Database& database) {
        drained = {};
        std::int64_t relay = 0;
        {
            // All rows are locked, so that of two relays that are drained at a time one stays. The
            // lock lets others refer to the rows: who places tunnels takes these in any order.
            Query rows(database,
                       database.Sql("SELECT key, name, CASE WHEN state = 'up' AND"
                                    " seen + $1 > unixepoch() THEN 1 ELSE 0 END"
                                    " FROM relay WHERE owner <> '' ORDER BY key",
                                    "SELECT key, name, CASE WHEN state = 'up' AND"
                                    " seen + $1 > unixepoch() THEN 1 ELSE 0 END"
                                    " FROM relay WHERE owner <> '' ORDER BY key FOR NO KEY UPDATE"),
                       Seconds(times_.alive));
            while (rows.Next()) {
                const bool isIt = rows.Text(1) == name;
                relay = isIt ? rows.Integer(0) : relay;
                drained.others += isIt ? 0 : rows.Integer(2);
            }
        }
        if (relay == 0 || drained.others == 0) {
            return relay == 0 ? StoreResult::NotFound : StoreResult::Refused;
        }
        Query(database, "UPDATE relay SET state = 'draining' WHERE key = $1", relay).Run();
        Query tunnels(database, "SELECT count(*) FROM service WHERE relay = $1", relay);
        drained.tunnels = tunnels.Next() ? tunnels.Integer(0) : 0;
        return StoreResult::Done;
    });
}

StoreResult RelayStore::Leave(const RelayRecord& relay) {
    return access_.Write("leaving of the relay", [&](Database& database) {
        // Not alive any more, but not dead for a while: it may be restarting. The epoch refuses a
        // life sign that is still under way.
        Query(database,
              "UPDATE relay SET seen = unixepoch() - $3, epoch = epoch + 1 WHERE key = $1"
              " AND epoch = $2",
              relay.key, relay.epoch, Seconds(times_.alive))
            .Run();
        return StoreResult::Done;
    });
}

StoreResult RelayStore::Alive(std::vector<RelayRecord>& relays) {
    return access_.Read("list of the relays", [&](Database& database) {
        relays = ReadAlive(database, times_);
        return StoreResult::Done;
    });
}

StoreResult RelayStore::Signs(std::vector<RelayRecord>& relays) {
    return access_.Read("list of the relays' life signs", [&](Database& database) {
        Query rows(
            database,
            "SELECT key, name, host, first_port, last_port, load, seen, epoch,"
            " unixepoch() - seen FROM relay WHERE state = 'up' AND owner <> '' ORDER BY key");
        relays.clear();
        while (rows.Next()) {
            relays.push_back(RelayOf(rows));
            relays.back().silence = rows.Integer(8);
        }
        return StoreResult::Done;
    });
}

int RelayStore::SshPort() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (Clock::now() < sshPortFresh_) {
            return sshPort_;
        }
    }
    int port = 0;
    const StoreResult read = access_.Read("look-up of the relays' port", [&](Database& database) {
        Query row(database,
                  "SELECT ssh_port FROM relay WHERE ssh_port > 0"
                  " ORDER BY CASE WHEN seen + $1 > unixepoch() THEN 0 ELSE 1 END, key LIMIT 1",
                  Seconds(times_.alive));
        port = row.Next() ? row.Int(0) : 0;
        return StoreResult::Done;
    });
    // Not before: others take the lock while they work on the database.
    const std::lock_guard<std::mutex> lock(mutex_);
    if (read == StoreResult::Done) {
        sshPort_ = port;
        sshPortFresh_ = Clock::now() + kSshPortFresh;
    }
    return sshPort_;
}

std::vector<std::int64_t> RelayStore::Choose(Database& database) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (Clock::now() >= fresh_) {
        RefreshLocked(database);
    }
    std::vector<std::pair<std::int64_t, std::int64_t>> byLoad;
    for (const auto& [key, candidate] : candidates_) {
        byLoad.emplace_back(candidate.load + candidate.since, key);
    }
    std::sort(byLoad.begin(), byLoad.end());
    std::vector<std::int64_t> keys;
    for (const auto& [load, key] : byLoad) {
        keys.push_back(key);
    }
    if (!keys.empty()) {
        ++candidates_[keys.front()].since;
    }
    return keys;
}

bool RelayStore::Refresh(Database& database) {
    const std::lock_guard<std::mutex> lock(mutex_);
    RefreshLocked(database);
    return !candidates_.empty();
}

void RelayStore::RefreshLocked(Database& database) {
    std::map<std::int64_t, Candidate> fresh;
    for (const RelayRecord& relay : ReadAlive(database, times_)) {
        Candidate& candidate = fresh[relay.key];
        candidate = {relay.seen, relay.load, 0};
        const auto known = candidates_.find(relay.key);
        if (known != candidates_.end() && known->second.seen == relay.seen) {
            candidate.since = known->second.since;
        }
    }
    candidates_.swap(fresh);
    fresh_ = Clock::now() + kFresh;
}

} // namespace ZARO::RelayHub
