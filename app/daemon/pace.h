/// When a tunnel's next log-in may begin.
#pragma once

#include <algorithm>

#include "app/daemon/backoff.h"

namespace ZARO::Relay::app {

/// A tunnel that had stood is rebuilt at once, however often it is lost. After a log-in that
/// failed, and after one whose tunnel did not stand, the wait grows with the time that this has
/// gone on: a relay that was away for a moment is used soon after its return, and one that stays
/// away, or refuses, is asked less and less often. The waits are random, so that many devices that
/// lost the same relay do not come back in step.
class Pace {
public:
    Time Next() const { return next_; }
    /// From when on the tunnel that logged in last counts as one that stands.
    Time SteadyFrom() const { return upSince_ + kSteady; }

    /// What was wrong is over, as far as is known: the next log-in begins within `spread` of now.
    void StartOver(Time now, milliseconds spread) {
        Stood();
        if (next_ > now + spread) { // else it does already
            next_ = now + Backoff::Random(milliseconds(0), spread);
        }
    }

    /// The next log-in begins at that time, whatever held before.
    void ComeAt(Time next) { next_ = next; }

    void LoggedIn(Time now) { upSince_ = now; }

    /// The tunnel stands: what was before does not count any more.
    void Stood() { failingSince_ = flappingSince_ = Time(); }

    /// The tunnel is down; false when it had hardly been up.
    bool Lost(Time now) {
        if (now >= SteadyFrom()) {
            Stood();
            next_ = now;
            return true;
        }
        next_ = now + Wait(flappingSince_, now, now, kFlap, kLongestFlap);
        return false;
    }

    /// The log-in that began then has failed by now. `spread`: the wait is drawn from at least this
    /// window, because many devices may have lost the relay at the same moment.
    void Failed(Time begun, Time now, milliseconds spread = milliseconds(0)) {
        const milliseconds least = std::max(kTry, spread);
        const Time next = begun + Wait(failingSince_, begun, now, least, kLongestTry);
        // There is always a pause, in which the loop does everything else. What lasts longer than
        // the client waits for a connection is an overload, here or at the relay, which trying
        // again soon would keep up.
        const auto took = std::chrono::duration_cast<milliseconds>(now - begun);
        const milliseconds pause = took > kSlow ? took : kPause;
        next_ = std::max({next_, next, now + Backoff::Random(pause / 4, pause)});
    }

private:
    static constexpr seconds kSteady{1};
    /// A relay that was away for up to 10 s is to be in use again within 3 s. So the windows stay
    /// below that in the first 10 s of an outage, and always for a tunnel that does not stand: its
    /// relay may go at any time. A server that has too many devices for that names a spread.
    static constexpr milliseconds kTry{2000};
    static constexpr milliseconds kLongestTry{60000};
    static constexpr milliseconds kFlap{500};
    static constexpr milliseconds kLongestFlap{2500};
    static constexpr milliseconds kPause{500};
    static constexpr milliseconds kSlow{6000};

    /// Draws a wait from a window of a fifth of the time since `since`. The first one comes from
    /// the whole window, since many devices may have begun at the same instant; later ones come
    /// from its upper half.
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
    Time failingSince_{};  ///< when the first log-in failed since the tunnel stood
    Time flappingSince_{}; ///< when the tunnel was first lost at once since it stood
};

} // namespace ZARO::Relay::app
