/// A simulated device: a held poll, and the tunnel that it was assigned.
#pragma once

#include <optional>

#include "bench/fleet_poll.h"
#include "bench/fleet_tunnel.h"

namespace ZARO::Fleet {

/// For the loop's thread. Never moves: its connections point to it.
class FleetDevice {
public:
    FleetDevice(World& world, unsigned number);
    FleetDevice(const FleetDevice&) = delete;
    FleetDevice& operator=(const FleetDevice&) = delete;

    /// Comes within `spread`, with its tunnel if it is to have one.
    void Start(milliseconds spread, bool withTunnel);
    /// Leaves without a word.
    void Stop();
    /// Builds its tunnel within `spread`, now and each time that it comes from now on.
    void UseTunnel(milliseconds spread);
    /// Loses its tunnel, and nothing else.
    void DropTunnel() { tunnel_.Drop(); }
    /// Counts attempts and losses from now on.
    void Mark();

    bool IsRunning() const { return running_; }
    /// Whether all that it should have stands.
    bool IsWhole() const { return whole_; }
    /// How long after the mark it was whole again; nothing when it lost nothing since, or is not
    /// back yet.
    std::optional<milliseconds> BackAfter() const;
    bool HasLost() const { return lost_; }

    const FleetPoll& Poll() const { return poll_; }
    const FleetTunnel& Tunnel() const { return tunnel_; }

private:
    void Changed();

    World& world_;
    bool running_ = false;
    bool withTunnel_ = false;
    bool whole_ = false;
    bool lost_ = false; ///< since the mark
    Time backAt_{};
    FleetTunnel tunnel_;
    FleetPoll poll_;
};

} // namespace ZARO::Fleet
