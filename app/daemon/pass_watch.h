/// Tells how long the steps of the loop's passes take.
#pragma once

#include <json/value.h>

#include <algorithm>
#include <map>
#include <string>
#include <string_view>

#include <zarorelayd/daemon.h>

#include "app/common/clock.h"
#include "base/log.h"

namespace ZARO::Relay::app {

/// Only a log-in may hold the loop. Any other pass that takes long is logged with the step that
/// took most of it; the longest times are kept for the dump.
class PassWatch {
public:
    /// A step of the pass begins, and the one before it ends. nullptr: the loop waits.
    /// `mayLast`: its time does not count for the pass.
    void Step(const char* name, bool mayLast = false) {
        const Time now = Clock::now();
        if (step_ != nullptr) {
            const auto took = std::chrono::duration_cast<milliseconds>(now - begun_);
            Keep(step_, took);
            pass_ += mayLast_ ? milliseconds(0) : took;
            if (!mayLast_ && took >= most_) {
                most_ = took;
                mostFor_ = step_;
            }
        }
        step_ = name;
        begun_ = now;
        mayLast_ = mayLast;
    }

    /// The pass is over.
    void Done() {
        Step(nullptr);
        Keep("a whole pass", pass_);
        if (pass_ >= kTooLong) {
            RELAY_LOG(log::Warning, "a pass of the loop took %ld ms, most of it for %s",
                      static_cast<long>(pass_.count()), mostFor_);
        }
        pass_ = most_ = milliseconds(0);
    }

    /// The longest time of each step, and of a pass without what may last, in milliseconds.
    Json::Value Dump() const {
        Json::Value dump;
        for (const auto& [step, longest] : longest_) {
            dump[std::string(step)] = static_cast<Json::Int64>(longest.count());
        }
        return dump;
    }

private:
    static constexpr milliseconds kTooLong{1000};

    void Keep(const char* step, milliseconds took) {
        milliseconds& longest = longest_[step];
        longest = std::max(longest, took);
    }

    const char* step_ = nullptr;
    bool mayLast_ = false;
    Time begun_{};
    milliseconds pass_{0};
    milliseconds most_{0}; ///< that one step of this pass took
    const char* mostFor_ = "";
    std::map<std::string_view, milliseconds> longest_; ///< by the step's name, a literal
};

} // namespace ZARO::Relay::app
