/// Keeps one tunnel per service that the server assigned.
#pragma once

#include <json/value.h>

#include <list>
#include <map>
#include <string>
#include <vector>

#include <zarorelayd/config.h>
#include <zarorelayd/tunnel.h>

#include "app/daemon/assigned_tunnels.h"
#include "app/daemon/child_watch.h"
#include "app/daemon/upkeep.h"

namespace ZARO::Relay::app {

/// Owns the tunnels and their ssh processes. For the daemon's one loop; only StartDue blocks,
/// for one log-in at most.
class TunnelKeeper {
public:
    /// The library's Register edits this list too. A tunnel that it drops is ended here.
    std::list<Tunnel>& Tunnels() { return tunnels_; }

    /// Takes the whole list that the server assigns: closes tunnels that are not in it or differ,
    /// keeps equal ones, starts missing ones one by one. What fails the checks is refused and
    /// logged. False, and nothing changes, for what is not a list or is far too long.
    bool Reconcile(const Json::Value& assigned, const std::list<ServiceConf>& services, Time now);

    /// Notices ended processes and ends dropped ones. To be called on every pass, even while the
    /// service is switched off.
    void Notice(Time now);

    /// Starts at most one tunnel.
    void StartDue(Time now);

    /// When Notice or StartDue is to be called next, at the latest.
    Time NextDue() const;

    /// The path to the servers is back: waiting tunnels are tried at once.
    void RetryNow(Time now) { Retry(now, milliseconds(0)); }

    /// The servers are back, for all their devices: waiting tunnels are tried soon, each at a time
    /// of its own.
    void RetrySoon(Time now);

    /// Over what time tunnels come back whose relay was lost to all its devices; 2 s until then.
    void SetSpread(milliseconds spread) { spread_ = spread; }

    /// Rebuilds the tunnels whose connection has a local address that the device lost.
    void DropLostAddresses(Time now);

    /// Ends the tunnels of services that are not published, or on another port.
    void DropWithdrawn(const std::list<ServiceConf>& services, Time now);

    /// Closes all tunnels and forgets what was assigned; for a service that is switched off.
    void CloseAll();

    /// Ends every ssh process and waits for that; kills those that take longer than `patience`.
    void Stop(milliseconds patience);

    /// Adds the descriptors by which the end of a process shows.
    void AddTo(fd_set& read, int& maxfd) const { children_.AddTo(read, maxfd); }

    /// Status of a service's tunnel for the status file; null when it has none.
    Json::Value Describe(const std::string& id) const;
    /// Whether the service can be reached at the relay, as far as is known.
    bool IsUp(const std::string& id) const;

    /// Everything, passwords included, for the dump.
    Json::Value Dump() const;

private:
    void NoticeEnded(Time now);
    void NoticeSteady(Time now);
    void SpreadLost(const std::string& id, Pace& pace, Time now);
    void EndDropped(Time now);
    void Retry(Time now, milliseconds spread);
    void Start(Tunnel& tunnel);
    std::vector<Pace*> OthersWithoutRelay(const Tunnel& tunnel);
    bool IsInUse(const std::string& relay) const;
    const Tunnel* Find(const std::string& id) const;

    std::list<Tunnel> tunnels_;
    std::map<std::string, Upkeep> upkeep_;
    ChildWatch children_;
    AssignedTunnels assigned_;
    std::string lost_; ///< whose tunnel was lost last
    Time lostAt_{};
    milliseconds spread_{2000};
    Time freeUntil_{}; ///< until then no log-in holds the loop
};

} // namespace ZARO::Relay::app
