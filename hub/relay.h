/// The SSH relay: devices log in and have their visitors forwarded to them.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include <boost/asio/steady_timer.hpp>

#include "hub/acceptor.h"
#include "hub/log.h"
#include "hub/loops.h"
#include "hub/relay_session.h"
#include "hub/store.h"
#include "hub/strangers.h"
#include "hub/tunnel_book.h"

namespace ZARO::RelayHub {

/// Accepts each tunnel's own user and password, and opens the tunnel's own port, nothing else. Any
/// thread may call the public methods. The loops must have stopped before it goes.
class Relay : private RelayDesk {
public:
    using StatusChanged = std::function<void(const TunnelStatus&)>;

    /// `book` spares the look-up of the tunnels in it; the relay adds those that it looked up, and
    /// removes those that it closes. `visitorAddress` is where the tunnels' ports listen.
    /// `statusChanged` is told when a tunnel goes up or down, in order. It must not block or call
    /// the relay.
    Relay(Loops& loops, Store& store, TunnelBook& book, std::string visitorAddress,
          StatusChanged statusChanged);
    ~Relay();

    /// Accepts at `listener`; `hostKey` is the text of the host key. The sessions spread over the
    /// loops. False with the reason in `error`, also after Stop().
    bool Start(UniqueFd listener, const std::string& hostKey, std::string& error);
    /// Ends every session; returns when they are gone, at most a second later while the loops run.
    void Stop();
    /// 0 = it does not listen.
    int Port() const;

    /// Whether that port is open for visitors at the moment. Takes no lock.
    bool IsUp(int port) const { return up_[static_cast<std::uint16_t>(port)]; }
    /// Ends the sessions of these tunnels and closes their ports before it returns.
    void Close(const std::vector<TunnelKey>& gone);
    /// How many connections there are, logged in or not.
    std::size_t Sessions() const;

private:
    /// A tunnel that a session has logged in for.
    struct Seat {
        SessionPtr session;
        TunnelRecord tunnel;
        std::shared_ptr<RelayPort> port; ///< null until the session asked for it
    };

    struct Entry {
        SessionPtr session;
        std::optional<Strangers::Place> stranger; ///< until it has logged in
    };

    using Seats = std::unordered_map<std::string, Seat>; ///< by user

    bool MayProceed(RelaySession& session) override;
    void Advance(RelaySession& session) override;
    void LogIn(const SessionPtr& session, const std::string& password) override;
    std::shared_ptr<RelayPort> OpenPort(RelaySession& session, int port) override;
    void Leave(RelaySession& session) override;

    bool MayAccept();
    void Admit(UniqueFd fd);
    /// Looks the session's user up in the store, on a worker.
    void LookUp(const SessionPtr& session, const std::string& password);
    /// Answers the session, on its loop. `tunnel` is null when the user is unknown.
    void Decide(const SessionPtr& session, const std::string& password, const TunnelRecord* tunnel);

    // To be called with the lock.

    Seats::iterator SeatOf(const RelaySession& session);
    void Take(const SessionPtr& session, const TunnelRecord& tunnel);
    void ForgetStranger(Entry& entry);
    void ServeNext();
    void ClosePort(Seat& seat, bool report);

    Loops& loops_;
    Store& store_;
    TunnelBook& book_;
    const std::string visitorAddress_;
    const StatusChanged statusChanged_;
    std::vector<std::atomic<bool>> up_; ///< by port
    LogQuota refusals_;
    LogQuota closedPorts_{Level::Error};
    std::vector<std::unique_ptr<RelayLane>> lanes_; ///< by loop; for the acceptor, as is the next
    std::size_t nextLane_ = 0;

    mutable std::mutex mutex_;           ///< guards the following; nothing blocks while it is held
    std::shared_ptr<Acceptor> acceptor_; ///< from Start() on, which a spare calls late
    std::condition_variable empty_;
    bool stopping_ = false;
    Seats seats_;
    Strangers strangers_;
    std::unordered_map<const RelaySession*, Entry> sessions_; ///< all of them
    std::uint64_t closings_ = 0;                              ///< how often tunnels were closed
    std::unique_ptr<asio::steady_timer> turns_; ///< until the next stranger may have its turn
    bool turning_ = false;                      ///< `turns_` runs
};

} // namespace ZARO::RelayHub
