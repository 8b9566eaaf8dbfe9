/// Tells relays that are gone from those that only look so.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <utility>
#include <vector>

#include "hub/store_relays.h"

namespace ZARO::RelayHub {

/// How long relays have been silent, by this process's own clock: for a moment every relay looks
/// dead after the database was away, or when its clock jumps. For one thread at a time.
class LifeSigns {
public:
    using Clock = std::chrono::steady_clock;

    /// To be called with all relays that are silent by the database's clock. Returns those that
    /// have been so at every call for this long, with the same last life sign.
    std::vector<RelayRecord> SilentFor(Clock::duration time,
                                       const std::vector<RelayRecord>& silent) {
        const auto now = Clock::now();
        std::vector<RelayRecord> gone;
        decltype(silent_) still;
        for (const RelayRecord& relay : silent) {
            const auto known = silent_.find(relay.key);
            const bool isSame = known != silent_.end() && known->second.first == relay.seen;
            const auto& entry = still[relay.key] =
                isSame ? known->second : std::pair(relay.seen, now);
            if (now - entry.second >= time) {
                gone.push_back(relay);
            }
        }
        silent_.swap(still);
        return gone;
    }
    /// Begins anew, as the database did not answer.
    void Forget() { silent_.clear(); }

private:
    /// The last life sign, and since when it has been the last.
    std::map<std::int64_t, std::pair<std::int64_t, Clock::time_point>> silent_;
};

} // namespace ZARO::RelayHub
