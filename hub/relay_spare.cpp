#include "hub/relay_spare.h"

#include <utility>
#include <vector>

namespace ZARO::RelayHub {

RelaySpare::RelaySpare(Loops& loops, Store& store, Claim claim, std::chrono::milliseconds interval)
    : loops_(loops), store_(store), claim_(std::move(claim)), interval_(interval),
      timer_(loops.Next()) {
}

void RelaySpare::Start() {
    asio::post(timer_.get_executor(), [self = shared_from_this()] { self->Wait(); });
}

void RelaySpare::Stop() {
    ended_ = true;
    asio::post(timer_.get_executor(), [self = shared_from_this()] { (void)self->timer_.cancel(); });
}

void RelaySpare::Wait() {
    if (ended_) {
        return;
    }
    timer_.expires_after(interval_);
    timer_.async_wait([self = shared_from_this()](const boost::system::error_code& error) {
        if (error || self->ended_) {
            return;
        }
        self->loops_.Block([self] {
            if (!self->Look()) {
                asio::post(self->timer_.get_executor(), [self] { self->Wait(); });
            }
        });
    });
}

bool RelaySpare::Look() {
    std::vector<RelayRecord> relays;
    if (store_.relays.Free(relays) != StoreResult::Done) {
        free_.clear();
        return false;
    }
    const auto now = Clock::now();
    decltype(free_) still;
    for (const RelayRecord& relay : relays) {
        const auto known = free_.find(relay.name);
        const bool isSame = known != free_.end() && known->second.first == relay.seen;
        still[relay.name] = isSame ? known->second : std::pair(relay.seen, now);
    }
    free_.swap(still);
    for (const auto& [name, seen] : free_) {
        if (now - seen.second >= store_.relays.Times().alive && !ended_ && claim_(name)) {
            return true;
        }
    }
    return false;
}

} // namespace ZARO::RelayHub
