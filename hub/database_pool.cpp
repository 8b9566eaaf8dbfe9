#include "hub/database_pool.h"

#include <utility>

#include "hub/log.h"

namespace ZARO::RelayHub {

namespace {

constexpr auto kAttemptPause = std::chrono::seconds(1);

} // namespace

void DatabasePool::Open(std::unique_ptr<Database> first, std::size_t most, Maker make) {
    idle_.push_back(std::move(first));
    made_ = 1;
    most_ = most;
    make_ = std::move(make);
}

bool DatabasePool::IsAway() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return away_;
}

std::unique_ptr<Database> DatabasePool::Take() {
    {
        std::unique_lock<std::mutex> lock(mutex_);
        freed_.wait(lock, [this] { return !idle_.empty() || made_ < most_; });
        if (!idle_.empty()) {
            std::unique_ptr<Database> database = std::move(idle_.back());
            idle_.pop_back();
            return database;
        }
        if (away_ && Clock::now() < nextAttempt_) {
            throw DatabaseFault("the database is away", FaultKind::Away);
        }
        nextAttempt_ = Clock::time_point::max(); // until this attempt has ended
        ++made_;
    }
    return Make();
}

std::unique_ptr<Database> DatabasePool::Make() {
    std::string failure = "out of memory";
    std::unique_ptr<Database> database;
    try {
        database = make_();
        failure.clear();
    } catch (const std::exception& fault) {
        failure = fault.what();
    }
    NoteAttempt(failure);
    if (database == nullptr) {
        throw DatabaseFault(failure, FaultKind::Away);
    }
    return database;
}

void DatabasePool::NoteAttempt(const std::string& failure) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const bool fails = !failure.empty();
    if (fails && !away_) {
        Log(Level::Error, "store", "the database is away: %s", failure.c_str());
    } else if (!fails && away_) {
        Log(Level::Info, "store", "the database is back");
    }
    away_ = fails;
    nextAttempt_ = Clock::now() + kAttemptPause;
    made_ -= fails ? 1 : 0;
    freed_.notify_all();
}

void DatabasePool::Give(std::unique_ptr<Database> database) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (database->IsLost()) {
        // Whatever cut this one has most likely cut the idle ones too.
        made_ -= 1 + idle_.size();
        idle_.clear();
    } else {
        idle_.push_back(std::move(database));
    }
    freed_.notify_all();
}

} // namespace ZARO::RelayHub
