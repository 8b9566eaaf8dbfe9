/// How the parts of the store reach the database: all of a piece of work or nothing.
#pragma once

#include <exception>
#include <functional>
#include <string>

#include "hub/database.h"
#include "hub/database_pool.h"
#include "hub/log.h"

namespace ZARO::RelayHub {

enum class StoreResult {
    Done,
    Refused, ///< wrong credentials, or another device's id
    NotFound,
    Taken, ///< by another device
    Full,  ///< no port, or too many services or devices
    Fault, ///< the database failed; it is logged
};

/// The open database. Any thread may call Read and Write; they block for the database, and while
/// every connection is in use, and don't throw. A file has one connection, a server four.
class StoreAccess {
public:
    using Work = std::function<StoreResult(Database&)>;

    /// Opens or makes the database, before anything else is called. Throws what went wrong.
    void Open(const std::string& target);

    /// Calls `work` and returns its result. It is called again when the connection turned out dead
    /// or somebody else's change came between, so it must not rely on what an earlier call has put
    /// into its outputs. What it throws otherwise is logged as a failure of `what` and becomes
    /// Fault.
    StoreResult Read(const char* what, const Work& work);

    /// The same within a transaction, which is kept only when `work` returns Done.
    StoreResult Write(const char* what, const Work& work);

private:
    StoreResult Failed(const char* what, const std::exception& fault, bool isLogged = false);

    DatabasePool pool_;
    LogQuota failures_{Level::Error};
};

/// Locks the device's row, so that two hosts don't change one device at the same time: the first
/// step of a transaction that changes it. False when there is no such device or it is banned.
bool LockDevice(Database& database, std::int64_t device);

/// Whether the operator has banned whoever has this serial.
bool IsBanned(Database& database, const std::string& serial);

} // namespace ZARO::RelayHub
