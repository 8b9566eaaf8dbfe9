#include "hub/upkeep.h"

#include <utility>

#include "hub/log.h"

namespace ZARO::RelayHub {

Upkeep::Upkeep(Loops& loops, Store& store, std::function<void(const Changes&)> changed,
               UpkeepTimes times)
    : loops_(loops), store_(store), changed_(std::move(changed)), times_(times),
      timer_(loops.Next()) {
}

void Upkeep::Start() {
    asio::post(timer_.get_executor(),
               [self = shared_from_this()] { self->WaitFor(self->times_.idle); });
}

void Upkeep::Stop() {
    ended_ = true;
    asio::post(timer_.get_executor(), [self = shared_from_this()] { (void)self->timer_.cancel(); });
}

void Upkeep::WaitFor(std::chrono::milliseconds pause) {
    if (ended_) {
        return;
    }
    timer_.expires_after(pause);
    timer_.async_wait([self = shared_from_this()](const boost::system::error_code& error) {
        if (error || self->ended_) {
            return;
        }
        self->loops_.Block([self] {
            const auto next = self->Work();
            asio::post(self->timer_.get_executor(), [self, next] { self->WaitFor(next); });
        });
    });
}

std::vector<RelayRecord> Upkeep::DeadRelays() {
    std::vector<RelayRecord> silent;
    if (store_.relays.Silent(store_.relays.Times().dead, silent) != StoreResult::Done) {
        signs_.Forget();
        return {};
    }
    return signs_.SilentFor(times_.settle, silent);
}

std::chrono::milliseconds Upkeep::Work() {
    Changes changes;
    (void)store_.moves.Move(DeadRelays(), times_.batch, changes); // else again after the pause
    if (changes.tunnels.empty()) {
        if (moved_ > 0) {
            Log(Level::Info, "upkeep", "moved %zu tunnels to other relays",
                std::exchange(moved_, 0));
        }
        return times_.idle;
    }
    if (moved_ == 0) {
        Log(Level::Info, "upkeep", "begins to move tunnels to other relays");
    }
    moved_ += changes.tunnels.size() / 2; // each is named twice: where it was and where it is
    changed_(changes);
    return times_.pause;
}

} // namespace ZARO::RelayHub
