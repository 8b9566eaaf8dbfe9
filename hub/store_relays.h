/// The relays: which there are, which of them live, and which one gets the next tunnel.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "hub/store_access.h"

namespace ZARO::RelayHub {

/// When a relay that says nothing is taken to be gone, by the database's clock.
struct RelayTimes {
    std::chrono::seconds alive{15}; ///< until then it gets new tunnels and keeps its identity
    std::chrono::seconds dead{120}; ///< from then on its tunnels move to others
};

/// What a process says when it wants to be a relay.
struct RelayIdentity {
    std::string name;  ///< of the relay, whichever host it runs on
    std::string host;  ///< what devices connect to; "" = the host of their request
    std::string owner; ///< a random id of this process's data folder, which survives a restart
    int firstPort = 0, lastPort = 0; ///< of the tunnels; 0 = those that the relay had before
    std::string hostKey;             ///< as text, for a relay that has none yet
    int sshPort = 0;                 ///< where devices log in
};

struct RelayRecord {
    std::int64_t key = 0;
    std::int64_t epoch = 0; ///< counts who took the identity or gave it back
    std::string name, host;
    int firstPort = 0, lastPort = 0;
    std::string hostKey; ///< private; set by Join() only
    std::int64_t load = 0;
    std::int64_t seen = 0; ///< when it last said that it lives; only good for comparing
};

/// What a drained relay has, and what there is to take it.
struct Drained {
    std::int64_t tunnels = 0;
    std::int64_t others = 0; ///< relays that live and take new tunnels
};

/// Any thread may call any method. They block for the database only and don't throw, unless they
/// say so.
class RelayStore {
public:
    explicit RelayStore(StoreAccess& access) : access_(access) {}

    /// To be called before anything else.
    void UseTimes(RelayTimes times) { times_ = times; }
    RelayTimes Times() const { return times_; }

    /// Makes the caller the relay of that name: at once when the relay is new, was the caller's
    /// before or has left, else when it is not alive. A relay on a shared database keeps the host
    /// key that it joined with first. Taken when it is alive elsewhere; then `relay` tells who
    /// has it.
    StoreResult Join(const RelayIdentity& identity, RelayRecord& relay);
    /// Says that the relay lives and how many tunnels it has. Refused when somebody else has
    /// become that relay; the caller is to end its sessions then.
    StoreResult Beat(const RelayRecord& relay, std::int64_t load);
    /// From now on the relay gets no new tunnels, and those that it has move to others. It serves
    /// them until then.
    StoreResult SetDraining(const RelayRecord& relay);
    /// The same for a relay that another process may be, until a process joins as that relay again.
    /// NotFound when there is none of that name, Refused when no other relay takes tunnels.
    StoreResult Drain(const std::string& name, Drained& drained);
    /// The relay ends: it gets no new tunnels, and another process may become it at once.
    StoreResult Leave(const RelayRecord& relay);

    /// The relays that live and take new tunnels.
    StoreResult Alive(std::vector<RelayRecord>& relays);
    /// Where devices log in to a relay, a living one if possible; 0 = unknown. Blocks for the
    /// database every few seconds only.
    int SshPort();
    /// The relays that have said nothing for this long, without those that were drained.
    StoreResult Silent(std::chrono::seconds time, std::vector<RelayRecord>& relays);

    /// The keys of the living relays, the one with the fewest tunnels first; the next tunnel is
    /// taken to become that one's. To be called within a piece of work on the database. Throws
    /// DatabaseFault.
    std::vector<std::int64_t> Choose(Database& database);
    /// Reads which relays live, which Choose() does once per second only. False when none does.
    bool Refresh(Database& database);

private:
    using Clock = std::chrono::steady_clock;

    /// A living relay, and what is known of its load.
    struct Candidate {
        std::int64_t seen = 0; ///< when it reported `load`
        std::int64_t load = 0;
        std::int64_t since = 0; ///< tunnels that it got from here after that
    };

    void RefreshLocked(Database& database);

    StoreAccess& access_;
    RelayTimes times_;

    std::mutex mutex_; ///< guards the following
    std::map<std::int64_t, Candidate> candidates_;
    Clock::time_point fresh_; ///< until when the candidates are good
    int sshPort_ = 0;
    Clock::time_point sshPortFresh_; ///< until when that is good
};

} // namespace ZARO::RelayHub
