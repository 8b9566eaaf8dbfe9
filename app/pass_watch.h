/// Tells how long the loop's passes take, and what takes long in them.
#pragma once

#include "app/backoff.h"
#include "daemon/log.h"

namespace ZARO::Relay::app {

/// Nothing that the loop does may hold it, but for a log-in. A pass that lasts all the same is
/// logged with the step that took most of it, and the longest one is kept for the dump.
class PassWatch {
public:
    /// A step of the pass begins, and the one before it ends. nullptr: what may last.
    void Step(const char* name) {
        const Time now = Clock::now();
        if (step_ != nullptr) {
            const auto took = std::chrono::duration_cast<milliseconds>(now - begun_);
            pass_ += took;
            if (took >= worst_) {
                worst_ = took;
                worstStep_ = step_;
            }
        }
        step_ = name;
        begun_ = now;
    }

    /// The pass is over.
    void Done() {
        Step(nullptr);
        if (pass_ >= kTooLong) {
            RELAY_LOG(4, "a pass of the loop took %ld ms, most of it for %s",
                      static_cast<long>(pass_.count()), worstStep_);
        }
        if (pass_ > longest_) {
            longest_ = pass_;
            longestStep_ = worstStep_;
        }
        pass_ = worst_ = milliseconds(0);
    }

    milliseconds Longest() const { return longest_; }
    /// What took most of it.
    const char* LongestStep() const { return longestStep_; }

private:
    static constexpr milliseconds kTooLong{1000};

    const char* step_ = nullptr;
    Time begun_{};
    milliseconds pass_{0};
    milliseconds worst_{0};
    const char* worstStep_ = "";
    milliseconds longest_{0};
    const char* longestStep_ = "";
};

} // namespace ZARO::Relay::app
