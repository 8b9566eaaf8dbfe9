/// The connections to the database that are open, lent to whoever needs one.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "hub/database.h"

namespace ZARO::RelayHub {

/// Keeps a few connections, and makes lost ones again at their next use. While the database is
/// away it tries once per second and fails at once otherwise. Any thread.
class DatabasePool {
public:
    using Maker = std::function<std::unique_ptr<Database>()>;

    /// Has `first`, and gets up to `most` by `make`, which throws DatabaseFault. Before any other
    /// call.
    void Open(std::unique_ptr<Database> first, std::size_t most, Maker make);

    /// One connection for one piece of work; it must not outlive the pool.
    class Lease {
    public:
        /// Blocks until a connection is free. Throws DatabaseFault.
        explicit Lease(DatabasePool& pool) : pool_(pool), database_(pool.Take()) {}
        Lease(const Lease&) = delete;
        Lease& operator=(const Lease&) = delete;
        ~Lease() { pool_.Give(std::move(database_)); }
        Database& operator*() const { return *database_; }

    private:
        DatabasePool& pool_;
        std::unique_ptr<Database> database_;
    };

    /// Whether the last attempt to connect failed, which has been logged.
    bool IsAway() const;

private:
    using Clock = std::chrono::steady_clock;

    std::unique_ptr<Database> Take();
    void Give(std::unique_ptr<Database> database);
    std::unique_ptr<Database> Make();
    /// Logs the begin or the end of an outage.
    void NoteAttempt(const std::string& failure);

    mutable std::mutex mutex_;
    std::condition_variable freed_;
    std::vector<std::unique_ptr<Database>> idle_;
    std::size_t made_ = 0; ///< idle, lent or being made
    std::size_t most_ = 1;
    Maker make_;
    bool away_ = false;
    Clock::time_point nextAttempt_; ///< while it is away
};

} // namespace ZARO::RelayHub
