/// When a tunnel's next log-in may begin.
#pragma once

#include <algorithm>

#include "app/backoff.h"

namespace ZARO::Relay::app {

/// A tunnel that had stood is rebuilt at once, however often it is lost. Everything else waits up
/// to a fifth of the time that the trouble has lasted so far: the device is away hardly longer than
/// its relay was, and a relay that stays away, or refuses, is asked less and less often. The waits
/// are random, so that many devices that lost the same relay do not come back in step.
class Pace {
public:
    Time Next() const { return next_; }
    /// From when on the tunnel that logged in last counts as one that stands.
    Time SteadyFrom() const { return upSince_ + kSteady; }

    /// What was wrong is over, as far as is known: the next log-in begins within `spread` of now.
    void StartOver(Time now, milliseconds spread) {
        failingSince_ = flappingSince_ = Time();
        if (next_ > now + spread) { // else it does already
            next_ = now + Backoff::Random(milliseconds(0), spread);
        }
    }

    /// The next log-in begins at that time, whatever was said before.
    void ComeAt(Time next) { next_ = next; }

    void LoggedIn(Time now) {
        upSince_ = now;
        failingSince_ = Time();
    }

    /// The tunnel is down; false when it had hardly been up.
    bool Lost(Time now) {
        if (now >= SteadyFrom()) {
            flappingSince_ = Time();
            next_ = now;
            return true;
        }
        next_ = now + Wait(flappingSince_, now, now, kFlap, kLongestFlap);
        return false;
    }

    /// The log-in that began then has failed by now.
    void Failed(Time begun, Time now) {
        const Time next = begun + Wait(failingSince_, begun, now, kTry, kLongestTry);
        // The loop has a moment for everything else. What lasts longer than the client waits for a
        // connection is an overload, here or at the relay, which trying again soon would keep up.
        const auto took = std::chrono::duration_cast<milliseconds>(now - begun);
        const milliseconds pause = took > kSlow ? took : kPause;
        next_ = std::max({next_, next, now + Backoff::Random(pause / 4, pause)});
    }

private:
    static constexpr seconds kSteady{1};
    /// A relay that is away for 10 s is in use again within 3 s, so the windows stay below that for
    /// as long; those of a flapping tunnel do always, since its relay may go as well.
    static constexpr milliseconds kTry{2000};
    static constexpr milliseconds kLongestTry{60000};
    static constexpr milliseconds kFlap{500};
    static constexpr milliseconds kLongestFlap{2500};
    static constexpr milliseconds kPause{500};
    static constexpr milliseconds kSlow{6000};

    /// A wait from the upper half of the window, but from all of it the first time: devices that
    /// tried at the same instant are spread first.
    static milliseconds Wait(Time& since, Time begun, Time now, milliseconds least,
                             milliseconds most) {
        const bool first = since == Time();
        since = first ? begun : since;
        const auto fifth = std::chrono::duration_cast<milliseconds>((now - since) / 5);
        const milliseconds window = std::clamp(fifth, least, most);
        return Backoff::Random(first ? milliseconds(0) : window / 2, window);
    }

    Time next_{};
    Time upSince_{};
    Time failingSince_{};  ///< of log-ins that failed in a row
    Time flappingSince_{}; ///< of tunnels that hardly stood, in a row
};

} // namespace ZARO::Relay::app
