/// Moves tunnels from relays that go or are gone to relays that live.
#pragma once

#include <cstddef>

#include "hub/changes.h"
#include "hub/store_access.h"
#include "hub/store_ports.h"
#include "hub/store_relays.h"

namespace ZARO::RelayHub {

/// Which relays are to lose their tunnels.
enum class MoveFrom { Draining, DrainingAndDead };

struct MovePlan;

/// Any thread may call any method. They block for the database only and don't throw.
class MoveStore {
public:
    MoveStore(StoreAccess& access, PortStore& ports, RelayStore& relays)
        : access_(access), ports_(ports), relays_(relays) {}

    /// Moves the tunnels of some devices, about `count` of them, in one transaction. They keep
    /// their users and passwords, and the numbers of their ports where those are free. Adds what
    /// changed to `changes`. Done without any change when there is nothing to move, no relay lives
    /// that could take it, or another process is moving.
    StoreResult Move(MoveFrom from, std::size_t count, Changes& changes);

private:
    /// Moves up to about as many tunnels as planned, within a transaction.
    void MoveBatch(Database& database, const MovePlan& plan, Changes& changes);

    StoreAccess& access_;
    PortStore& ports_;
    RelayStore& relays_;
};

} // namespace ZARO::RelayHub
