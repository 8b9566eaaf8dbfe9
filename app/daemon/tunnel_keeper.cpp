#include "app/daemon/tunnel_keeper.h"

#include <algorithm>
#include <iterator>
#include <set>

#include <zarorelayd/daemon.h>

#include "app/daemon/login.h"
#include "app/daemon/lost_sockets.h"
#include "base/log.h"

namespace ZARO::Relay::app {

namespace {

/// A server that is back is back for all the tunnels of this device. Within this time they follow
/// one by one, so that a relay is not overrun when it has just started.
constexpr milliseconds kFollow{2000};
/// Tunnels that are lost within this time of each other have lost their relay. The first of them
/// waits a moment, to see whether others follow.
constexpr milliseconds kTogether{1000};
constexpr milliseconds kShows{100};
/// A log-in that fails after this long failed by a time-out.
constexpr seconds kSilent{3};
/// After a log-in that failed the loop is free for as long as that held it, so that many refused
/// tunnels do not keep it from everything else; but no longer than this.
constexpr seconds kLongestFree{1};

} // namespace

bool TunnelKeeper::Reconcile(const Json::Value& assigned, const std::list<ServiceConf>& services,
                             Time now) {
    if (!assigned.isArray() || assigned.size() > AssignedTunnels::kMost) {
        return false;
    }
    auto wanted = assigned_.Read(assigned, services);
    for (const auto& [id, entry] : wanted) {
        upkeep_[id].relayAnswers = entry.relayAnswers;
    }
    for (auto tunnel = tunnels_.begin(); tunnel != tunnels_.end();) {
        const std::string id = tunnel->GetServiceId();
        const auto found = wanted.find(id);
        if (found != wanted.end() && found->second.tunnel == *tunnel) {
            wanted.erase(found);
            ++tunnel;
            continue;
        }
        RELAY_LOG(log::Info, "closing the tunnel of %s: %s", id.c_str(),
                  found == wanted.end() ? "withdrawn" : "changed");
        tunnel->Destroy();
        tunnel = tunnels_.erase(tunnel);
    }
    for (const auto& [id, entry] : wanted) {
        tunnels_.push_back(entry.tunnel);
        upkeep_[id].pace.StartOver(now, milliseconds(0));
    }
    EndDropped(now);
    return true;
}

void TunnelKeeper::Notice(Time now) {
    children_.Reap(now);
    NoticeEnded(now);
    NoticeSteady(now);
    EndDropped(now);
}

void TunnelKeeper::StartDue(Time now) {
    if (now < freeUntil_) {
        return;
    }
    Tunnel* next = nullptr;
    Time earliest = Time::max();
    for (Tunnel& tunnel : tunnels_) {
        const Time due = upkeep_[tunnel.GetServiceId()].pace.Next();
        if (tunnel.GetStatus() != TUNNEL_STATUS_READY && due <= now && due < earliest) {
            earliest = due;
            next = &tunnel;
        }
    }
    if (next != nullptr) {
        Start(*next);
    }
}

/// A process that has ended takes its tunnel with it.
void TunnelKeeper::NoticeEnded(Time now) {
    for (Tunnel& tunnel : tunnels_) {
        if (!tunnel.CheckStatusChanged()) {
            continue;
        }
        const std::string& id = tunnel.GetServiceId();
        Upkeep& upkeep = upkeep_[id];
        if (upkeep.Ended(id, now)) {
            SpreadLost(id, upkeep.pace, now);
        }
    }
}

/// A trouble has ended when a tunnel stands, not each time that it is up for a moment.
void TunnelKeeper::NoticeSteady(Time now) {
    for (const Tunnel& tunnel : tunnels_) {
        const std::string& id = tunnel.GetServiceId();
        if (tunnel.GetStatus() == TUNNEL_STATUS_READY && upkeep_[id].BeginsToStand(id, now)) {
            for (Pace* other : OthersWithoutRelay(tunnel)) {
                other->StartOver(now, kFollow);
            }
        }
    }
}

/// A tunnel that had stood comes back at once, unless the relay itself seems to be gone.
void TunnelKeeper::SpreadLost(const std::string& id, Pace& pace, Time now) {
    const bool together = lost_ != id && now - lostAt_ <= kTogether;
    const auto former = upkeep_.find(lost_);
    if (together && former != upkeep_.end()) {
        former->second.pace.ComeAt(now + Backoff::Random(milliseconds(0), spread_));
    }
    lost_ = id;
    lostAt_ = now;
    const milliseconds wait = tunnels_.size() > 1 ? kShows : milliseconds(0);
    pace.ComeAt(now + (together ? Backoff::Random(milliseconds(0), spread_) : wait));
}

/// What is not assigned any more loses its process and its history.
void TunnelKeeper::EndDropped(Time now) {
    std::set<pid_t> owned;
    std::set<std::string> ids;
    for (const Tunnel& tunnel : tunnels_) {
        owned.insert(tunnel.GetPid());
        ids.insert(tunnel.GetServiceId());
    }
    children_.EndUnowned(owned, now);
    for (auto upkeep = upkeep_.begin(); upkeep != upkeep_.end();) {
        upkeep = ids.count(upkeep->first) != 0 ? std::next(upkeep) : upkeep_.erase(upkeep);
    }
}

void TunnelKeeper::Start(Tunnel& tunnel) {
    const std::string id = tunnel.GetServiceId();
    Upkeep& upkeep = upkeep_[id];
    const TUNNEL_STATUS before = tunnel.GetStatus();
    const Time begun = Clock::now();
    const bool good = LogIn(tunnel, children_);
    const Time now = Clock::now();
    if (tunnel.GetStatus() != before) {
        upkeep.ChangeStatus();
    }
    if (!good) {
        // A relay that other tunnels use has not been lost to all its devices.
        const bool alone = IsInUse(tunnel.GetRelayHost());
        upkeep.pace.Failed(begun, now, alone ? milliseconds(0) : spread_);
        freeUntil_ = now + std::min<Clock::duration>(now - begun, kLongestFree);
        if (now - begun >= kSilent) {
            for (Pace* other : OthersWithoutRelay(tunnel)) {
                other->Failed(now, now, spread_);
            }
        }
        upkeep.Trouble(id, "could not be built");
        return;
    }
    upkeep.LoggedIn(now);
    RELAY_LOG(log::Info, "tunnel of %s is up", id.c_str());
}

/// The other tunnels to the same relay, if none of them is up. A relay that does not even refuse
/// holds the loop for a whole log-in, so they wait as well instead of trying one after the other;
/// and one that has come back has come back for all of them.
std::vector<Pace*> TunnelKeeper::OthersWithoutRelay(const Tunnel& tunnel) {
    std::vector<Pace*> others;
    for (const Tunnel& other : tunnels_) {
        if (&other == &tunnel || other.GetRelayHost() != tunnel.GetRelayHost()) {
            continue;
        }
        if (other.GetStatus() == TUNNEL_STATUS_READY) {
            return {};
        }
        others.push_back(&upkeep_[other.GetServiceId()].pace);
    }
    return others;
}

bool TunnelKeeper::IsInUse(const std::string& relay) const {
    return std::any_of(tunnels_.begin(), tunnels_.end(), [&](const Tunnel& tunnel) {
        return tunnel.GetRelayHost() == relay && tunnel.GetStatus() == TUNNEL_STATUS_READY;
    });
}

Time TunnelKeeper::NextDue() const {
    Time due = children_.NextDue();
    for (const Tunnel& tunnel : tunnels_) {
        const auto upkeep = upkeep_.find(tunnel.GetServiceId());
        if (upkeep == upkeep_.end()) {
            continue;
        }
        if (tunnel.GetStatus() != TUNNEL_STATUS_READY) {
            due = std::min(due, std::max(upkeep->second.pace.Next(), freeUntil_));
        } else {
            due = std::min(due, upkeep->second.StandsFrom());
        }
    }
    return due;
}

void TunnelKeeper::RetrySoon(Time now) {
    Retry(now, kFollow);
}

void TunnelKeeper::Retry(Time now, milliseconds spread) {
    for (auto& [id, upkeep] : upkeep_) {
        upkeep.pace.StartOver(now, spread);
    }
}

/// Nothing may lead to a service that the device does not publish any more, also while no server
/// can be told.
void TunnelKeeper::DropWithdrawn(const std::list<ServiceConf>& services, Time now) {
    tunnels_.remove_if([&](Tunnel& tunnel) {
        const std::string& id = tunnel.GetServiceId();
        const auto service = std::find_if(services.begin(), services.end(), CmprServiceId(id));
        if (service != services.end() && service->port == tunnel.GetServiceConf().port) {
            return false;
        }
        RELAY_LOG(log::Info, "closing the tunnel of %s: not published any more", id.c_str());
        tunnel.Destroy();
        return true;
    });
    EndDropped(now);
}

void TunnelKeeper::DropLostAddresses(Time now) {
    const LostSockets lost;
    for (Tunnel& tunnel : tunnels_) {
        const pid_t pid = tunnel.GetPid();
        if (pid > 0 && lost.Has(pid)) {
            RELAY_LOG(log::Notice, "tunnel of %s lost its address", tunnel.GetServiceId().c_str());
            tunnel.Destroy();
        }
    }
    RetryNow(now);
}

void TunnelKeeper::CloseAll() {
    for (Tunnel& tunnel : tunnels_) {
        tunnel.Destroy();
    }
    tunnels_.clear();
    EndDropped(Clock::now());
}

void TunnelKeeper::Stop(milliseconds patience) {
    tunnels_.clear();
    children_.EndAll(patience);
}

const Tunnel* TunnelKeeper::Find(const std::string& id) const {
    const auto tunnel = std::find_if(tunnels_.begin(), tunnels_.end(), [&](const Tunnel& entry) {
        return entry.GetServiceId() == id;
    });
    return tunnel != tunnels_.end() ? &*tunnel : nullptr;
}

Json::Value TunnelKeeper::Describe(const std::string& id) const {
    const Tunnel* tunnel = Find(id);
    const auto upkeep = upkeep_.find(id);
    if (tunnel == nullptr || upkeep == upkeep_.end()) {
        return Json::Value();
    }
    Json::Value description;
    description["status"] = Tunnel::GetStatusStr(tunnel->GetStatus());
    description["relay_ip"] = tunnel->GetRelayHost();
    description["relay_port"] = tunnel->GetRelayPort();
    description["since"] = static_cast<Json::Int64>(upkeep->second.Since());
    description["restarts"] = std::max(0, upkeep->second.Starts() - 1);
    return description;
}

bool TunnelKeeper::IsUp(const std::string& id) const {
    const Tunnel* tunnel = Find(id);
    const auto upkeep = upkeep_.find(id);
    return tunnel != nullptr && tunnel->GetStatus() == TUNNEL_STATUS_READY &&
           upkeep != upkeep_.end() && upkeep->second.relayAnswers;
}

Json::Value TunnelKeeper::Dump() const {
    Json::Value list(Json::arrayValue);
    for (const Tunnel& tunnel : tunnels_) {
        Json::Value& entry = list.append(Json::Value());
        tunnel.Write(entry, kFullForm);
        const auto upkeep = upkeep_.find(tunnel.GetServiceId());
        if (upkeep != upkeep_.end()) {
            entry["starts"] = upkeep->second.Starts();
            entry["relay_up"] = upkeep->second.relayAnswers;
            entry["since"] = static_cast<Json::Int64>(upkeep->second.Since());
        }
    }
    return list;
}

} // namespace ZARO::Relay::app
