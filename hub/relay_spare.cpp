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
    const std::chrono::seconds silence = store_.relays.Times().alive;
    std::vector<RelayRecord> silent;
    if (store_.relays.Silent(silence, silent) != StoreResult::Done) {
        signs_.Forget();
        return false;
    }
    for (const RelayRecord& relay : signs_.SilentFor(silence, silent)) {
        if (!ended_ && claim_(relay.name)) {
            return true;
        }
    }
    return false;
}

} // namespace ZARO::RelayHub
