/// Waiting times between attempts.
#pragma once

#include <algorithm>

#include "app/common/clock.h"

namespace ZARO::Relay::app {

/// Exponential waiting times with full jitter, so that many devices that lost the same server do
/// not come back in step. Starts over after a minute of health.
class Backoff {
public:
    Backoff(milliseconds least, milliseconds most) : least_(least), most_(most), window_(least) {}

    void Succeeded(Time now) {
        if (healthySince_ == Time()) {
            healthySince_ = now;
        }
    }

    /// The wait before the next attempt. `spread`: it is drawn from at least this window, because
    /// many devices may have failed at the same moment.
    milliseconds Failed(Time now, milliseconds spread = milliseconds(0)) {
        if (healthySince_ != Time() && now - healthySince_ >= kHealth) {
            window_ = least_;
        }
        healthySince_ = Time();
        const milliseconds wait = Random(milliseconds(0), std::max(window_, spread));
        window_ = std::min(window_ * 2, most_);
        return wait;
    }

    /// A wait near the slow end, where trying sooner can't help.
    milliseconds Refused() {
        healthySince_ = Time();
        return Random(most_ / 2, most_);
    }

    /// Whether it has grown to its longest.
    bool IsSlow() const { return window_ >= most_; }

    void Reset() {
        window_ = least_;
        healthySince_ = Time();
    }

    /// Any time between the two, each as likely.
    static milliseconds Random(milliseconds from, milliseconds to);

private:
    static constexpr seconds kHealth{60};

    milliseconds least_;
    milliseconds most_;
    milliseconds window_;
    Time healthySince_{};
};

} // namespace ZARO::Relay::app
