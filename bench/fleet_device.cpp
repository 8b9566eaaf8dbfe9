#include "bench/fleet_device.h"

namespace ZARO::Fleet {

FleetDevice::FleetDevice(World& world, unsigned number)
    : world_(world), tunnel_(
                         world, number, [this] { Changed(); }, [this] { return poll_.Spread(); }),
      poll_(world, number,
            {[this](const TunnelAddress& address) {
                 const bool first = tunnel_.Address().host.empty();
                 tunnel_.Assign(address);
                 if (first && withTunnel_) {
                     tunnel_.Start(milliseconds(0));
                 }
             },
             [this] { Changed(); }, [this] { tunnel_.RetrySoon(); }}) {
}

void FleetDevice::Start(milliseconds spread, bool withTunnel) {
    running_ = true;
    withTunnel_ = withTunnel;
    poll_.Start(spread);
    if (withTunnel_) {
        tunnel_.Start(spread);
    }
}

void FleetDevice::Stop() {
    running_ = false;
    tunnel_.Stop();
    poll_.Stop();
}

void FleetDevice::UseTunnel(milliseconds spread) {
    withTunnel_ = true;
    tunnel_.Start(spread);
    Changed();
}

void FleetDevice::Mark() {
    lost_ = false;
    poll_.tries = poll_.requests = poll_.failures = poll_.refusals = 0;
    tunnel_.tries = tunnel_.failures = tunnel_.refusals = 0;
}

std::optional<milliseconds> FleetDevice::BackAfter() const {
    if (!lost_ || !whole_) {
        return std::nullopt;
    }
    return std::chrono::duration_cast<milliseconds>(backAt_ - world_.mark);
}

void FleetDevice::Changed() {
    const bool whole = running_ && poll_.Stands() && (!withTunnel_ || tunnel_.IsUp());
    if (whole && !whole_) {
        backAt_ = Clock::now();
    }
    lost_ = lost_ || (whole_ && !whole);
    whole_ = whole;
}

} // namespace ZARO::Fleet
