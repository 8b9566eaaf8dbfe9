#include "hub/guess_limit.h"

#include <algorithm>
#include <iterator>

namespace ZARO::RelayHub {

namespace {

using std::chrono::seconds;

constexpr int kMostOfNetwork = 5;
constexpr seconds kNetworkPause(30);
constexpr int kMostOfAll = 50;
constexpr seconds kPauseOfAll(1);

} // namespace

int GuessLimit::Bucket::SecondsToWait(Clock::time_point now, int most, seconds pause) const {
    const auto missing = full - now - pause * (most - 1);
    return missing <= Clock::duration::zero()
               ? 0
               : static_cast<int>(std::chrono::ceil<seconds>(missing).count());
}

void GuessLimit::Bucket::Take(Clock::time_point now, seconds pause) {
    full = std::max(full, now) + pause;
}

int GuessLimit::Take(std::int64_t network, Clock::time_point now) {
    const std::lock_guard<std::mutex> lock(mutex_);
    for (auto known = networks_.begin(); known != networks_.end();) {
        known = known->second.full <= now ? networks_.erase(known) : std::next(known);
    }
    const auto found = networks_.find(network);
    const Bucket own = found == networks_.end() ? Bucket() : found->second;
    const int wait = std::max(own.SecondsToWait(now, kMostOfNetwork, kNetworkPause),
                              all_.SecondsToWait(now, kMostOfAll, kPauseOfAll));
    if (wait == 0) {
        networks_[network].Take(now, kNetworkPause);
        all_.Take(now, kPauseOfAll);
    }
    return wait;
}

void GuessLimit::GiveBack(std::int64_t network) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = networks_.find(network);
    if (found != networks_.end()) {
        found->second.full -= kNetworkPause;
    }
    all_.full -= kPauseOfAll;
}

} // namespace ZARO::RelayHub
