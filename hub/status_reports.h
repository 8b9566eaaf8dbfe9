/// Which tunnels went up or down: gathered, stored together, told to the devices.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include <boost/asio/steady_timer.hpp>

#include "hub/loops.h"
#include "hub/store.h"
#include "hub/waiters.h"

namespace ZARO::RelayHub {

/// The changes of 0.2 s become one change of the store. Any thread may call any method; none
/// blocks. To be destroyed after the loops have stopped.
class StatusReports {
public:
    using Devices = std::vector<std::int64_t>;
    /// Called on a worker when the lists of these devices have a new revision; must not throw.
    using Reported = std::function<void(const Devices& devices)>;

    /// `reported` may be empty.
    StatusReports(Loops& loops, Store& store, Waiters& waiters, Reported reported)
        : loops_(loops), store_(store), waiters_(waiters), reported_(std::move(reported)),
          timer_(loops.At(0)) {}

    void Add(TunnelStatus status);

private:
    using Statuses = std::unordered_map<std::string, TunnelStatus>; ///< by user, the latest

    /// Calls Report() after a time. With the lock.
    void SetTimer(bool isRetry);
    /// For a worker.
    void Report();
    void Failed(Statuses statuses, const Devices& fresh);

    Loops& loops_;
    Store& store_;
    Waiters& waiters_;
    const Reported reported_;
    std::mutex mutex_;         ///< guards the following, is not held while the store is at work
    Statuses fresh_;           ///< not reported yet
    Statuses failed_;          ///< could not be stored
    bool isReporting_ = false; ///< soon or now
    bool isAtWork_ = false;    ///< one at a time, so that the latest status is stored last
    asio::steady_timer timer_; ///< for the thread of its loop
};

} // namespace ZARO::RelayHub
