/// The part of a process that is a relay: its identity, its tunnels and its sessions.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <boost/asio/steady_timer.hpp>

#include "base/unique_fd.h"
#include "hub/changes.h"
#include "hub/hub.h"
#include "hub/loops.h"
#include "hub/relay.h"
#include "hub/relay_member.h"
#include "hub/relay_spare.h"
#include "hub/store.h"
#include "hub/tunnel_book.h"

namespace ZARO::RelayHub {

/// Becomes the relay that the options name, or, as a spare, one whose process is gone. Any thread
/// may call any method but Start and Stop, which are for the one that owns it. The loops must have
/// stopped before it goes.
class RelayRole {
public:
    struct Actions {
        Relay::StatusChanged statusChanged;          ///< a tunnel went up or down
        std::function<void(const Changes&)> changed; ///< tells other processes
        std::function<void()> lost; ///< another process has become this relay: it serves no more
    };

    /// `loops`, `store` and `options` must outlive it.
    RelayRole(Loops& loops, Store& store, const HubOptions& options, Actions actions);

    /// Returns when the relay listens, or when the spare has begun to wait. False with the reason
    /// in `error`.
    bool Start(std::string& error);
    /// Ends every session and gives the identity back.
    void Stop();
    /// The SSH port; 0 = it does not listen (yet).
    int Port() const { return port_; }

    /// Whether the tunnel's port is open for visitors: as this relay knows, or as the tunnel's own
    /// relay reported.
    bool IsUp(const TunnelRecord& tunnel) const;
    /// Whether a port can be had here. Throws system_error when this can't be found out.
    bool IsFree(int port) const;
    /// Ends those of the tunnels that are here, and closes their ports before it returns.
    void Close(const std::vector<TunnelKey>& gone);
    /// Another process changed something; the second is for when it is unknown what.
    void Heed(const Changes& changes);
    void HeedAll();

    /// Has the tunnels moved to other relays. Blocks for the database.
    void BeginDrain();
    /// Whether every tunnel has moved, or no other relay is there to take them. Blocks for the
    /// database.
    bool IsDrained();

private:
    using Member = std::shared_ptr<RelayMember>;

    /// Becomes the relay `name` and listens. When it fails, another process may become that relay.
    bool Become(const std::string& name, std::string& error);
    /// Takes sessions. To be called with the lock of `life_`, as is the next.
    bool Serve(UniqueFd listener, const std::string& hostKey, std::string& error);
    StoreResult Join(const RelayIdentity& identity, std::string& error);
    /// Tries to join again and again.
    void JoinLater(const RelayIdentity& identity);
    bool GetOwner(std::string& owner, std::string& error) const;
    void Lost();
    /// Gives the identity back, if it has one.
    void Leave();
    /// Null while this process is no relay.
    Member CurrentMember() const;
    void SetMember(Member member);
    /// Tells the database that the tunnels are to move. False when it failed.
    bool Drain(RelayMember& member);

    Loops& loops_;
    Store& store_;
    const HubOptions& options_;
    const Actions actions_;
    UniqueFd nameLock_;
    TunnelBook book_;
    std::atomic<int> port_{0};
    std::atomic<std::int64_t> key_; ///< of the relay; 0 = unknown as yet, -1 = this is none
    Relay relay_;
    std::shared_ptr<RelaySpare> spare_;
    asio::steady_timer joinTimer_; ///< for the thread of its loop
    std::atomic<bool> ended_{false};

    std::mutex life_; ///< this process becomes the relay, loses it or stops: one at a time
    std::atomic<bool> drains_{false}; ///< the database knows that its tunnels are to move

    mutable std::mutex mutex_;
    Member member_; ///< guarded by the lock
};

} // namespace ZARO::RelayHub
