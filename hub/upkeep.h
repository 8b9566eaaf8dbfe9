/// What one control server does for all: moves tunnels away from relays that leave or are dead.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <vector>

#include <boost/asio/steady_timer.hpp>

#include "hub/changes.h"
#include "hub/life_signs.h"
#include "hub/loops.h"
#include "hub/store.h"

namespace ZARO::RelayHub {

/// How fast tunnels move. Every device whose tunnel moves reconnects, so not all do so at a time.
struct UpkeepTimes {
    std::size_t batch = 40;                  ///< tunnels per transaction, about
    std::chrono::milliseconds pause{200};    ///< between two batches
    std::chrono::milliseconds idle{1000};    ///< between two looks when there is nothing to move
    std::chrono::milliseconds settle{15000}; ///< a relay has to look dead to this process, too
};

/// Every control server has one; the database lets one of them work at a time. Any thread may call
/// any method. It is held by shared_ptr; `loops` and `store` must live until the loops have
/// stopped.
class Upkeep : public std::enable_shared_from_this<Upkeep> {
public:
    /// `changed` is called by a worker with what was moved; it must not throw.
    Upkeep(Loops& loops, Store& store, std::function<void(const Changes&)> changed,
           UpkeepTimes times = {});

    void Start();
    /// Moves nothing from now on, but for a batch that is under way.
    void Stop();

private:
    void WaitFor(std::chrono::milliseconds pause);
    /// Runs on a worker, one at a time. The pause until the next one.
    std::chrono::milliseconds Work();
    std::vector<RelayRecord> DeadRelays();

    Loops& loops_;
    Store& store_;
    const std::function<void(const Changes&)> changed_;
    const UpkeepTimes times_;
    asio::steady_timer timer_;
    std::atomic<bool> ended_{false};
    std::size_t moved_ = 0; ///< tunnels since there was nothing to move
    LifeSigns signs_;
};

} // namespace ZARO::RelayHub
