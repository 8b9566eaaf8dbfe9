/// What is measured, one method each.
#pragma once

#include "bench/fleet_hub.h"
#include "bench/fleet_swarm.h"

namespace ZARO::Fleet {

/// Each method prints its figures and checks their bounds. For the main thread, after Begin().
class Phases : NoCopy {
public:
    Phases(FleetHub& hub, Swarm& swarm, seconds idle);

    /// All devices register, then all build their tunnels.
    void Begin();
    void Idle();
    void LoseRelay();
    void LoseControl();
    void LoseBoth();
    /// Devices come and go.
    void Churn();
    void Load();
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
    void PrintCost(const char* what, const Usage& hubBefore, const Usage& devicesBefore,
                   double seconds) const;

    FleetHub& hub_;
    Swarm& swarm_;
    const seconds idle_;
    const Usage empty_; ///< the hub before the first device came
};

} // namespace ZARO::Fleet
