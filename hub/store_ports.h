/// The ports of the relays, and who has them.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <utility>
#include <vector>

#include "hub/log.h"
#include "hub/store_access.h"

namespace ZARO::RelayHub {

/// The ports that tunnels get at this process's own relay, and a test whether one is usable at the
/// moment. When the test throws, the change that needed a port fails.
struct PortPool {
    int first = 20000;
    int last = 29999;
    std::function<bool(int)> isFree;
};

/// The keys of the relays that may get a new tunnel, the best one first. Called within a piece of
/// work on the database.
using RelayChoice = std::function<std::vector<std::int64_t>(Database&)>;

struct TunnelPort {
    std::int64_t relay = 0;
    int port = 0;
};

/// A free port is handed out after those that have been free for longer, so that the address of a
/// service that is gone leads nowhere for as long as possible instead of to somebody else's
/// service. Any thread may call Join, which blocks for the database only and does not throw.
class PortStore {
public:
    explicit PortStore(StoreAccess& access) : access_(access) {}

    /// The relay of this process, with the test for its ports. To be called once, at any time.
    void UseRelay(std::int64_t relay, std::function<bool(int)> isFree);
    /// Which relays get new tunnels; before that is set, the one of this process does.
    void UseChoice(RelayChoice choice) { choice_ = std::move(choice); }

    /// From now on the relay has these ports. Tunnels keep theirs, also outside of the range;
    /// outside they are not handed out again.
    StoreResult Join(std::int64_t relay, int first, int last);

    // The methods below run inside a piece of work on the database.

    /// Gives the device a port, unless all are taken.
    std::optional<TunnelPort> Assign(Database& database, std::int64_t device);
    /// Gives the device this port, if the relay has it and it is free.
    static bool AssignThis(Database& database, const TunnelPort& port, std::int64_t device);
    static void Free(Database& database, const TunnelPort& port);

private:
    /// A port of one relay.
    std::optional<TunnelPort> AssignAt(Database& database, std::int64_t relay, std::int64_t device);

    StoreAccess& access_;
    std::function<bool(int)> isFree_;    ///< set before the next one, and not changed afterwards
    std::atomic<std::int64_t> relay_{0}; ///< of this process; 0 = it has none
    RelayChoice choice_;
    LogQuota shortages_, foreign_;
};

} // namespace ZARO::RelayHub
