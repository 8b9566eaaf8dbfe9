#include "app/daemon/tunnel_keeper.h"

#include <unistd.h>

#include <algorithm>
#include <set>

#include "app/common/checks.h"
#include "app/daemon/login_guard.h"
#include "app/daemon/lost_sockets.h"
#include "app/daemon/server_reply.h"
#include "daemon/log.h"

namespace ZARO::Relay::app {

namespace {

/// A relay that is lost is lost to all its devices: within this time they come back one by one, so
/// that it is not overrun when it has just started.
constexpr milliseconds kSpread{2000};
/// Tunnels that are lost within this time of each other have lost their relay. The first of them
/// waits a moment, to see whether others follow.
constexpr milliseconds kTogether{1000};
constexpr milliseconds kShows{100};
/// A log-in that fails after this long failed by a time-out.
constexpr seconds kSilent{3};
/// After a log-in that failed the loop is free for as long as that held it, so that many refused
/// tunnels do not keep it from everything else; but no longer than this.
constexpr seconds kLongestFree{1};
constexpr seconds kBetweenLosses{60};
/// More than any device publishes.
constexpr Json::ArrayIndex kMostTunnels = 256;
/// How many refusals of one reply are logged.
constexpr std::size_t kMostRefusals = 5;

} // namespace

std::map<std::string, Json::Value>
TunnelKeeper::TakeAssigned(const Json::Value& assigned, const std::list<ServiceConf>& services) {
    std::map<std::string, Json::Value> wanted;
    std::set<std::string> reasons;
    unsigned refused = 0;
    for (Json::ArrayIndex i = 0; i < assigned.size(); ++i) {
        Json::Value tunnel;
        std::string why;
        if (CheckTunnel(assigned[i], services, tunnel, why)) {
            const std::string id = tunnel["id"].asString();
            if (wanted.emplace(id, tunnel).second) {
                const Json::Value& answers = assigned[i]["relay_up"];
                upkeep_[id].relayAnswers = !answers.isBool() || answers.asBool();
            }
            continue;
        }
        ++refused;
        if (reasons.size() < kMostRefusals && reasons.insert(why).second &&
            refused_.count(why) == 0) {
            RELAY_LOG(3, "refused a tunnel from the server: %s", why.c_str());
        }
    }
    if (refused > kMostRefusals && refused_.size() < kMostRefusals) {
        RELAY_LOG(3, "refused %u tunnels from the server", refused);
    }
    refused_.swap(reasons);
    return wanted;
}

bool TunnelKeeper::Reconcile(const Json::Value& assigned, const std::list<ServiceConf>& services,
                             Time now) {
    if (!assigned.isArray() || assigned.size() > kMostTunnels) {
        return false;
    }
    std::map<std::string, Json::Value> wanted = TakeAssigned(assigned, services);
    for (auto tunnel = tunnels_.begin(); tunnel != tunnels_.end();) {
        const std::string id = tunnel->GetServiceId();
        const auto found = wanted.find(id);
        if (found != wanted.end() && Tunnel(found->second) == *tunnel) {
            wanted.erase(found);
            ++tunnel;
            continue;
        }
        RELAY_LOG(6, "closing the tunnel of %s: %s", id.c_str(),
                  found == wanted.end() ? "withdrawn" : "changed");
        tunnel->Destroy();
        tunnel = tunnels_.erase(tunnel);
    }
    for (const auto& [id, tunnel] : wanted) {
        tunnels_.emplace_back(tunnel);
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
        upkeep.since = Beginning();
        upkeep.stands = false;
        if (upkeep.pace.Lost(now)) {
            // A line that breaks again and again is told of once a minute.
            const bool told =
                upkeep.lossToldAt != Time() && now - upkeep.lossToldAt < kBetweenLosses;
            upkeep.lossToldAt = told ? upkeep.lossToldAt : now;
            RELAY_LOG(told ? 6 : 4, "tunnel of %s is down, rebuilding it", id.c_str());
            SpreadLost(id, upkeep.pace, now);
        } else {
            Troubled(upkeep, id, "does not stand");
        }
    }
}

/// A trouble has ended when a tunnel stands, not each time that it is up for a moment.
void TunnelKeeper::NoticeSteady(Time now) {
    for (const Tunnel& tunnel : tunnels_) {
        Upkeep& upkeep = upkeep_[tunnel.GetServiceId()];
        if (upkeep.stands || tunnel.GetStatus() != TUNNEL_STATUS_READY ||
            now < upkeep.pace.SteadyFrom()) {
            continue;
        }
        upkeep.stands = true;
        upkeep.pace.Stood();
        for (Pace* other : OthersWithoutRelay(tunnel)) {
            other->StartOver(now, kSpread);
        }
        if (upkeep.troubled) {
            upkeep.troubled = false;
            RELAY_LOG(4, "tunnel of %s works again", tunnel.GetServiceId().c_str());
        }
    }
}

/// A tunnel that had stood comes back at once, unless the relay itself seems to be gone.
void TunnelKeeper::SpreadLost(const std::string& id, Pace& pace, Time now) {
    const bool together = lost_ != id && now - lostAt_ <= kTogether;
    const auto former = upkeep_.find(lost_);
    if (together && former != upkeep_.end()) {
        former->second.pace.ComeAt(now + Backoff::Random(milliseconds(0), kSpread));
    }
    lost_ = id;
    lostAt_ = now;
    const milliseconds wait = tunnels_.size() > 1 ? kShows : milliseconds(0);
    pace.ComeAt(now + (together ? Backoff::Random(milliseconds(0), kSpread) : wait));
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
    const bool good = LogIn(tunnel);
    const Time now = Clock::now();
    if (tunnel.GetStatus() != before) {
        upkeep.since = Beginning();
    }
    if (!good) {
        upkeep.pace.Failed(begun, now);
        freeUntil_ = now + std::min<Clock::duration>(now - begun, kLongestFree);
        if (now - begun >= kSilent) {
            for (Pace* other : OthersWithoutRelay(tunnel)) {
                other->Failed(now, now);
            }
        }
        Troubled(upkeep, id, "could not be built");
        return;
    }
    upkeep.pace.LoggedIn(now);
    ++upkeep.starts;
    RELAY_LOG(6, "tunnel of %s is up", id.c_str());
}

bool TunnelKeeper::LogIn(Tunnel& tunnel) {
    const pid_t daemon = getpid();
    bool good = false;
    {
        const LoginGuard guard;
        good = tunnel.Create();
        if (getpid() != daemon) {
            _exit(127); // the child whose SSH client could not be executed
        }
    }
    // The search for the process also finds that of a service whose id only begins with this one's.
    const std::string ending = std::to_string(daemon) + "." + tunnel.GetServiceId();
    if (good && ServesPasswordFile(tunnel.GetPid(), ending) && children_.Add(tunnel.GetPid())) {
        return true;
    }
    // The process that could not be found may run all the same; it must not hold the port.
    EndStrays([&](const std::string& file) { return file == ending; });
    if (good) {
        tunnel.ForgetProcess();
    }
    return false;
}

void TunnelKeeper::Troubled(Upkeep& upkeep, const std::string& id, const char* how) const {
    RELAY_LOG(upkeep.troubled ? 6 : 4, "tunnel of %s %s, trying on", id.c_str(), how);
    upkeep.troubled = true;
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

Time TunnelKeeper::NextDue() const {
    Time due = children_.NextDue();
    for (const Tunnel& tunnel : tunnels_) {
        const auto upkeep = upkeep_.find(tunnel.GetServiceId());
        if (upkeep == upkeep_.end()) {
            continue;
        }
        if (tunnel.GetStatus() != TUNNEL_STATUS_READY) {
            due = std::min(due, std::max(upkeep->second.pace.Next(), freeUntil_));
        } else if (!upkeep->second.stands) {
            due = std::min(due, upkeep->second.pace.SteadyFrom());
        }
    }
    return due;
}

void TunnelKeeper::RetrySoon(Time now) {
    Retry(now, kSpread);
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
        RELAY_LOG(6, "closing the tunnel of %s: not published any more", id.c_str());
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
            RELAY_LOG(5, "tunnel of %s lost its address", tunnel.GetServiceId().c_str());
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
    description["since"] = static_cast<Json::Int64>(upkeep->second.since.Seconds());
    description["restarts"] = std::max(0, upkeep->second.starts - 1);
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
        tunnel.Write(entry, true);
        const auto upkeep = upkeep_.find(tunnel.GetServiceId());
        if (upkeep != upkeep_.end()) {
            entry["starts"] = upkeep->second.starts;
            entry["relay_up"] = upkeep->second.relayAnswers;
            entry["since"] = static_cast<Json::Int64>(upkeep->second.since.Seconds());
        }
    }
    return list;
}

} // namespace ZARO::Relay::app
