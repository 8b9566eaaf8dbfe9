/// What the daemon remembers of one assigned tunnel beside its settings and its process.
#pragma once

#include <ctime>
#include <string>

#include "app/daemon/beginning.h"
#include "app/daemon/pace.h"

namespace ZARO::Relay::app {

/// The history of one tunnel. `id` is its service's, for the log.
class Upkeep {
public:
    Pace pace;
    bool relayAnswers = true; ///< what the server said last about the relay's own port

    /// The tunnel's status has changed just now.
    void ChangeStatus() { since_ = Beginning(); }
    /// When its status changed last, in seconds since the epoch.
    std::time_t Since() const { return since_.Seconds(); }

    void LoggedIn(Time now);
    /// How often the tunnel has logged in.
    int Starts() const { return starts_; }

    /// The process of a tunnel that was up has ended. True when the tunnel had stood.
    bool Ended(const std::string& id, Time now);

    /// True once for a tunnel that is up, when it has stayed up for long enough to count as one
    /// that stands.
    bool BeginsToStand(const std::string& id, Time now);
    /// When that is to be asked next, for a tunnel that is up.
    Time StandsFrom() const { return stands_ ? Time::max() : pace.SteadyFrom(); }

    /// Logs what is wrong with the tunnel: the first time as a warning, then, until the tunnel
    /// stands, as information.
    void Trouble(const std::string& id, const char* how);

private:
    Beginning since_;
    int starts_ = 0;
    Time lossToldAt_{};     ///< when a loss was last logged as a warning
    bool stands_ = false;   ///< it has been up for a while
    bool troubled_ = false; ///< it can't log in or does not stand, which was logged
};

} // namespace ZARO::Relay::app
