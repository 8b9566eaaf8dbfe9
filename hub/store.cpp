#include "hub/store.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "base/unique_fd.h"
#include "hub/database_url.h"

namespace ZARO::RelayHub {

namespace {

/// SQLite gives the files beside the database the mode of this one, so it is made private first. A
/// file that is there is not opened: closing it would take the locks of this process's other
/// connections with it.
bool MakePrivate(const std::string& file, std::string& error) {
    const UniqueFd made(open(file.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    struct stat status = {};
    if (made.IsOpen() ||
        (errno == EEXIST && lstat(file.c_str(), &status) == 0 && S_ISREG(status.st_mode))) {
        return true;
    }
    error = "can't open " + file + ": " + (errno == EEXIST ? "not a file" : strerror(errno));
    return false;
}

} // namespace

bool Store::Open(const std::string& target, std::string& error) {
    const bool isServer = IsPostgresUrl(target);
    if (!isServer && !MakePrivate(target, error)) {
        return false;
    }
    const std::string prefix = isServer ? "--database: " : "can't use " + target + ": ";
    try {
        access_.Open(target);
        return true;
    } catch (const DatabaseFault& fault) {
        error = prefix + fault.what();
        if (!isServer && fault.kind == FaultKind::Damage) {
            error += "; put a copy back, or move it away, which makes every device register again;"
                     " remove its -wal and -shm files with it";
        }
    } catch (const std::exception& fault) {
        error = prefix + fault.what();
    }
    return false;
}

bool Store::Open(const std::string& target, PortPool pool, std::string& error) {
    if (!Open(target, error)) {
        return false;
    }
    std::int64_t relay = 0;
    if (FindOnlyRelay(relay) != StoreResult::Done) {
        error = "can't make the relay; the log says why";
        return false;
    }
    ports.UseRelay(relay, std::move(pool.isFree));
    // When nothing can be written, the ports and revisions stay those of the last time.
    (void)ports.Join(relay, pool.first, pool.last);
    (void)services.ReportRelayDown(relay);
    return true;
}

StoreResult Store::FindOnlyRelay(std::int64_t& relay) {
    const auto find = [&relay](Database& database) {
        Query row(database, "SELECT key FROM relay WHERE name = 'relay'");
        relay = row.Next() ? row.Integer(0) : 0;
        return relay != 0 ? StoreResult::Done : StoreResult::NotFound;
    };
    const StoreResult found = access_.Read("look-up of the relay", find);
    if (found != StoreResult::NotFound) {
        return found;
    }
    return access_.Write("making of the relay", [&find](Database& database) {
        Query(database, "INSERT INTO relay(name) VALUES('relay') ON CONFLICT DO NOTHING").Run();
        return find(database);
    });
}

} // namespace ZARO::RelayHub
