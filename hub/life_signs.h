/// Tells relays that are gone from those that only look so.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <utility>
#include <vector>

#include "hub/store_relays.h"

namespace ZARO::RelayHub {

/// How long relays have been silent, by the database's clock and by this process's own: by the
/// first alone every relay looks dead for a moment after the database was away, or when its clock
/// jumps. For one thread at a time.
class LifeSigns {
public:
    using Clock = std::chrono::steady_clock;

    /// To be called about once per second, with all relays. Returns those that have been silent for
    /// `time` by the database's clock and for `here` by this process's.
    std::vector<RelayRecord> Silent(const std::vector<RelayRecord>& relays,
                                    std::chrono::seconds time, Clock::duration here) {
        const auto now = Clock::now();
        if (now - last_ > kGap) {
            signs_.clear(); // the database may have kept the relays waiting, too
        }
        last_ = now;
        std::vector<RelayRecord> gone;
        decltype(signs_) still;
        for (const RelayRecord& relay : relays) {
            const auto known = signs_.find(relay.key);
            const bool isSame = known != signs_.end() && known->second.first == relay.seen;
            const auto& sign = still[relay.key] =
                isSame ? known->second : std::pair(relay.seen, now);
            if (relay.silence >= time.count() && now - sign.second >= here) {
                gone.push_back(relay);
            }
        }
        signs_.swap(still);
        return gone;
    }
    /// Begins anew, as the database did not answer.
    void Forget() { signs_.clear(); }

private:
    static constexpr std::chrono::seconds kGap{5};

    /// By relay: its last life sign, and when that was first seen here.
    std::map<std::int64_t, std::pair<std::int64_t, Clock::time_point>> signs_;
    Clock::time_point last_; ///< call
};

} // namespace ZARO::RelayHub
