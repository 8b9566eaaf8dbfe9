#include "hub/store_access.h"

#include <cstddef>
#include <memory>

#include "hub/database_url.h"
#include "hub/postgres.h"
#include "hub/schema.h"

namespace ZARO::RelayHub {

namespace {

constexpr std::size_t kConnections = 4; // as many as there are workers
constexpr int kConflicts = 5;           // then the work fails

} // namespace

void StoreAccess::Open(const std::string& target) {
    pool_.Open(OpenWithTables(target), IsPostgresUrl(target) ? kConnections : 1,
               [target] { return std::make_unique<Postgres>(target); });
}

StoreResult StoreAccess::Read(const char* what, const Work& work) {
    bool wasLost = false;
    for (int conflicts = 0;;) {
        try {
            const DatabasePool::Lease database(pool_);
            return work(*database);
        } catch (const DatabaseFault& fault) {
            const bool isAway = fault.kind == FaultKind::Away;
            // SQLite lets whoever looks next have a lock, so a process can be unlucky for seconds.
            const bool isInTheWay =
                fault.kind == FaultKind::Conflict || fault.kind == FaultKind::Busy;
            const bool again =
                isAway ? !wasLost && !pool_.IsAway() : isInTheWay && ++conflicts < kConflicts;
            if (!again) {
                return Failed(what, fault, isAway && pool_.IsAway());
            }
            wasLost = wasLost || isAway;
        } catch (const std::exception& fault) {
            return Failed(what, fault);
        }
    }
}

StoreResult StoreAccess::Write(const char* what, const Work& work) {
    return Read(what, [&work](Database& database) {
        Transaction transaction(database);
        const StoreResult result = work(database);
        if (result == StoreResult::Done) {
            transaction.Commit();
        }
        return result;
    });
}

StoreResult StoreAccess::Failed(const char* what, const std::exception& fault, bool isLogged) {
    if (!isLogged) {
        failures_.Log("store", "%s failed: %s", what, fault.what());
    }
    return StoreResult::Fault;
}

bool LockDevice(Database& database, std::int64_t device) {
    std::string serial;
    {
        Query lock(database,
                   database.Sql("SELECT serial FROM device WHERE key = $1",
                                "SELECT serial FROM device WHERE key = $1 FOR UPDATE"),
                   device);
        if (!lock.Next()) {
            return false;
        }
        serial = lock.Text(0);
    }
    // A statement of its own: the one above does not see a ban that it had to wait for.
    return !IsBanned(database, serial);
}

bool IsBanned(Database& database, const std::string& serial) {
    Query ban(database, "SELECT 1 FROM ban WHERE serial = $1", serial);
    return ban.Next();
}

} // namespace ZARO::RelayHub
