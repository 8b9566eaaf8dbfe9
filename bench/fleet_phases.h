/// What is measured, one method each.
#pragma once

#include <functional>

#include "bench/fleet_hub.h"
#include "bench/fleet_swarm.h"

namespace ZARO::Fleet {

/// Each method prints its figures and checks their bounds. For the main thread, after Begin().
class Phases : NoCopy {
public:
    /// `switchDatabase` stops or starts the database server; empty without one.
    Phases(FleetHub& hub, Swarm& swarm, seconds idle, std::function<void(bool on)> switchDatabase);

    /// All devices register, then all build their tunnels.
    void Begin();
    void Idle();
    void LoseRelay();
    void LoseControl();
    void LoseBoth();
    /// Devices come and go.
    void Churn();
    void Load();
    /// The database server is away for a minute.
    void LoseDatabase();
    /// Devices go to another control server with each request.
    void Move();
    /// One of two hosts is gone for good.
    void LoseHost();

private:
    /// What holds after a loss.
    enum class Aftermath {
        ComesBack, ///< what was lost is started again at once
        StaysAway, ///< others take over, once they have noticed
    };

    void Lose(const FleetHub::Which& which, Aftermath aftermath);
    void CheckReturn(Aftermath aftermath, const Usage& hubBefore, const Usage& devicesBefore);
    /// Waits until the hub has calmed down.
    void Settle() const;
    /// `length` in seconds; 0 = what each device costs is of interest, not the share of a core.
    void PrintCost(const char* what, const Usage& hubBefore, const Usage& devicesBefore,
                   double length = 0) const;

    FleetHub& hub_;
    Swarm& swarm_;
    const seconds idle_;
    const std::function<void(bool on)> switchDatabase_;
    const Usage empty_; ///< the hub before the first device came
};

} // namespace ZARO::Fleet
