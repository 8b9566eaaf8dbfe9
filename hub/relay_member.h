/// One relay's place among all of the database: it says that it lives, and knows its tunnels.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <boost/asio/steady_timer.hpp>

#include "hub/changes.h"
#include "hub/loops.h"
#include "hub/store.h"
#include "hub/tunnel_book.h"

namespace ZARO::RelayHub {

/// How often a relay does what.
struct MemberTimes {
    std::chrono::milliseconds beat{5000};    ///< says that it lives; reads again what failed
    std::chrono::milliseconds reread{60000}; ///< reads all of its tunnels, whatever it was told
};

/// Keeps the book of a relay's tunnels current. Without the database everything stays as it is. Any
/// thread may call any method. It is held by shared_ptr, and may outlive its last user until the
/// loops have stopped; `loops`, `store` and `book` must live until then.
class RelayMember : public std::enable_shared_from_this<RelayMember> {
public:
    /// Called by workers; they must not throw.
    struct Actions {
        /// These tunnels are gone, or have another relay, port or password: ends their sessions.
        std::function<void(const std::vector<TunnelKey>&)> close;
        /// Another process has become this relay: ends every session. Called once.
        std::function<void()> lost;
    };

    RelayMember(Loops& loops, Store& store, TunnelBook& book, Actions actions,
                MemberTimes times = {});

    /// Becomes the relay, notes that all its tunnels are down, and fills the book; to be called
    /// before Start(). Blocks for the database. On success `changes` holds what others are to read
    /// again. Taken when another process is that relay, Fault when the database failed; both with
    /// the reason in `error`.
    StoreResult Join(const RelayIdentity& identity, Changes& changes, std::string& error);
    /// What Join() made of this process.
    const RelayRecord& Relay() const { return relay_; }

    /// Begins to say that the relay lives, before the loops stop.
    void Start();
    /// Reads again which of these tunnels are the relay's.
    void Heed(const Changes& changes);
    /// Says that the relay lives, and reads all tunnels again, as anything may have changed.
    void HeedAll();

    /// Has the tunnels moved to other relays, which takes a while: the book is empty then. Blocks
    /// for the database. False when it failed.
    bool Drain();
    /// Ends the membership in order: another process may become the relay. Blocks for the
    /// database. Nothing is called afterwards but what is under way.
    void Leave();

private:
    using Keys = std::vector<TunnelKey>;

    // The next ones run on the loop.
    void Tick();
    void Beat();
    /// Reads what is due, unless a read is under way: so a read never sees less than one before.
    void ReadNext();
    void NoteRead(bool good, bool all, const std::set<std::string>& users);

    // The next ones run on a worker.
    StoreResult ReadAll();
    StoreResult ReadSome(const std::set<std::string>& users);
    void BeLost();

    Loops& loops_;
    Loop& loop_;
    Store& store_;
    TunnelBook& book_;
    const Actions actions_;
    const MemberTimes times_;
    RelayRecord relay_;
    std::atomic<bool> ended_{false};

    // Used on the loop only.
    asio::steady_timer timer_;
    std::chrono::steady_clock::time_point rereadAt_;
    bool beating_ = false, reading_ = false;
    bool allDue_ = false;            ///< all tunnels are to be read
    std::set<std::string> usersDue_; ///< whose tunnels are to be read
};

} // namespace ZARO::RelayHub
