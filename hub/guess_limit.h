/// How often codes may be guessed.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>

namespace ZARO::RelayHub {

/// Wrong guesses per network and altogether: a few at once, then one now and then. Any thread may
/// call any method; none blocks. Knows at most as many networks as there are guesses altogether.
class GuessLimit {
public:
    using Clock = std::chrono::steady_clock;

    /// To be called before a code is looked at. 0 = go on, and call GiveBack() unless the code
    /// turns out wrong; else the seconds until the network may try again.
    int Take(std::int64_t network, Clock::time_point now);
    void GiveBack(std::int64_t network);

private:
    /// Allows `most` guesses at once and then one per `pause`. Holds the time when all of them will
    /// be allowed again.
    struct Bucket {
        Clock::time_point full;

        int SecondsToWait(Clock::time_point now, int most, std::chrono::seconds pause) const;
        void Take(Clock::time_point now, std::chrono::seconds pause);
    };

    std::mutex mutex_; ///< guards the following
    Bucket all_;
    std::map<std::int64_t, Bucket> networks_; ///< that guessed lately
};

} // namespace ZARO::RelayHub
