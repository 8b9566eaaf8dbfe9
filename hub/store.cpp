#include "hub/store.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "base/unique_fd.h"
#include "hub/postgres.h"

namespace ZARO::RelayHub {

namespace {

/// SQLite gives the files beside the database the mode of this one, so it is made private first.
bool MakePrivate(const std::string& file, std::string& error) {
    UniqueFd made(open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!made.IsOpen()) {
        error = "can't open " + file + ": " + strerror(errno);
    }
    const bool good = made.IsOpen();
    (void)made.Close(); // closed later, it would take SQLite's locks on the file with it
    return good;
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
    // When nothing can be written, the ports and revisions are those of the last time.
    if (MakeOnlyRelay(relay) == StoreResult::Done) {
        (void)ports.Join(relay, pool.first, pool.last);
        (void)services.ReportRelayDown(relay);
        ports.UseRelay(relay, std::move(pool.isFree));
    }
    return true;
}

StoreResult Store::MakeOnlyRelay(std::int64_t& relay) {
    return access_.Write("making of the relay", [&relay](Database& database) {
        Query(database, "INSERT INTO relay(name) VALUES('relay') ON CONFLICT DO NOTHING").Run();
        Query row(database, "SELECT key FROM relay WHERE name = 'relay'");
        relay = row.Next() ? row.Integer(0) : 0;
        return StoreResult::Done;
    });
}

} // namespace ZARO::RelayHub
