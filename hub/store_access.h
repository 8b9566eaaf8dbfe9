/// How the parts of the store reach the database: one piece of work at a time, all of it or
/// nothing.
#pragma once

#include <exception>
#include <memory>
#include <mutex>
#include <string>

#include "hub/database.h"

namespace ZARO::RelayHub {

enum class StoreResult {
    Done,
    Refused, ///< wrong credentials, or another device's id
    NotFound,
    Taken, ///< by another device
    Full,  ///< no port, or too many services or devices
    Fault, ///< the database failed; it is logged
};

/// The open database with its lock. Any thread may call Read and Write; both block while another
/// thread is at work, and don't throw.
class StoreAccess {
public:
    /// Opens or makes the database, before anything else is called. Throws what went wrong.
    void Open(const std::string& file);

    /// Calls `work(database)` and returns its result. What `work` throws is logged as a failure of
    /// `what` and becomes Fault.
    template <typename Work> StoreResult Read(const char* what, Work work) {
        try {
            const std::lock_guard<std::mutex> lock(mutex_);
            return work(*database_);
        } catch (const std::exception& fault) {
            return Failed(what, fault);
        }
    }

    /// The same within a transaction, which is kept only when `work` returns Done.
    template <typename Work> StoreResult Write(const char* what, Work work) {
        return Read(what, [&work](Database& database) {
            Transaction transaction(database);
            const StoreResult result = work(database);
            if (result == StoreResult::Done) {
                transaction.Commit();
            }
            return result;
        });
    }

private:
    static StoreResult Failed(const char* what, const std::exception& fault);

    std::mutex mutex_;
    std::unique_ptr<Database> database_;
};

} // namespace ZARO::RelayHub
