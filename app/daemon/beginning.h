/// When something began.
#pragma once

#include <ctime>

namespace ZARO::Relay::app {

/// The moment at which the object was made. Its seconds since the epoch stay right when the clock
/// is set later: a board without a battery starts in 1970.
class Beginning {
public:
    std::time_t Seconds() const {
        const std::time_t fresh = time(nullptr) - (Uptime() - uptime_);
        const std::time_t change = fresh - shown_;
        if (change < -kStep || change > kStep) { // less is rounding, and would look like a change
            shown_ = fresh;
        }
        return shown_;
    }

private:
    static constexpr std::time_t kStep = 2;

    static std::time_t Uptime() {
        timespec now = {};
        (void)clock_gettime(CLOCK_BOOTTIME, &now); // also counts while the machine sleeps
        return now.tv_sec;
    }

    std::time_t uptime_ = Uptime();
    mutable std::time_t shown_ = time(nullptr);
};

} // namespace ZARO::Relay::app
