/// Moves tunnels from relays that go or are gone to relays that live.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "hub/changes.h"
#include "hub/store_access.h"
#include "hub/store_ports.h"
#include "hub/store_relays.h"

namespace ZARO::RelayHub {

/// Any thread may call any method. They block for the database only and don't throw.
class MoveStore {
public:
    MoveStore(StoreAccess& access, PortStore& ports, RelayStore& relays)
        : access_(access), ports_(ports), relays_(relays) {}

    /// Moves the tunnels of some devices, about `count` of them, in one transaction: from relays
    /// that are draining, and from `dead` ones that have given no life sign since. They keep their
    /// users and passwords, and the numbers of their ports where those are free. Adds what changed
    /// to `changes`. Done without any change when there is nothing to move, no relay lives that
    /// could take it, or another process is moving.
    StoreResult Move(const std::vector<RelayRecord>& dead, std::size_t count, Changes& changes);

private:
    struct Place;

    // The steps below run inside a piece of work on the database.

    /// Moves tunnels whose ports' numbers are free at living relays, as many to each relay.
    void MoveSameNumbers(Database& database, std::int64_t relay, std::size_t count,
                         Changes& changes);
    /// Moves tunnels to any ports.
    void MoveOthers(Database& database, std::int64_t relay, std::size_t count, Changes& changes);
    /// Whether the tunnel is still there and its device's row is this transaction's own.
    static bool Hold(Database& database, const Place& place, const Changes& changes);
    static void MoveTunnel(Database& database, const Place& old, const TunnelPort& port,
                           Changes& changes);
    static std::vector<Place> Places(Query& rows);

    StoreAccess& access_;
    PortStore& ports_;
    RelayStore& relays_;
};

} // namespace ZARO::RelayHub
