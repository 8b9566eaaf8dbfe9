/// A process that stands by to become a relay whose process is gone.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include <boost/asio/steady_timer.hpp>

#include "hub/life_signs.h"
#include "hub/loops.h"
#include "hub/store.h"

namespace ZARO::RelayHub {

/// Looks for a free relay once per `interval`. Any thread may call any method. It is held by
/// shared_ptr; `loops` and `store` must live until the loops have stopped.
class RelaySpare : public std::enable_shared_from_this<RelaySpare> {
public:
    /// Called by a worker with the name of a relay that was seen to be free for long enough. It
    /// joins as that relay and returns whether it did; then the spare is done.
    using Claim = std::function<bool(const std::string& name)>;

    RelaySpare(Loops& loops, Store& store, Claim claim,
               std::chrono::milliseconds interval = std::chrono::seconds(1));

    void Start();
    /// Claims nothing from now on, but for a claim that is under way.
    void Stop();

private:
    void Wait();
    /// Runs on a worker, one at a time. True when the spare has become a relay.
    bool Look();

    Loops& loops_;
    Store& store_;
    const Claim claim_;
    const std::chrono::milliseconds interval_;
    asio::steady_timer timer_;
    std::atomic<bool> ended_{false};
    LifeSigns signs_;
};

} // namespace ZARO::RelayHub
