#include "app/daemon/service_probes.h"

#include <algorithm>
#include <iterator>
#include <set>

#include <zarorelayd/daemon.h>
#include <zarorelayd/tunnel.h>

#include "base/log.h"
#include "base/text.h"

namespace ZARO::Relay::app {

namespace {

constexpr seconds kBetweenProbes{60};

} // namespace

void ServiceProbes::Probe(const std::list<ServiceConf>& services, Time now) {
    std::set<std::string> ids;
    for (const ServiceConf& service : services) {
        ids.insert(service.id);
        LastProbe& last = probes_[service.id];
        if (last.port != LocalPort(service) || now >= last.next) {
            last.next = now + kBetweenProbes;
            ProbeOne(service, last);
        }
    }
    for (auto probe = probes_.begin(); probe != probes_.end();) {
        probe = ids.count(probe->first) != 0 ? std::next(probe) : probes_.erase(probe);
    }
}

void ServiceProbes::ProbeOne(const ServiceConf& service, LastProbe& last) {
    const Reachable before = last.found;
    last.port = LocalPort(service);
    last.found = ProbeLocalPort(last.port);
    if (before != last.found &&
        (before == Reachable::Refuses || last.found == Reachable::Refuses)) {
        RELAY_LOG(log::Warning, "service %s, port %d: %s", Printable(service.id).c_str(), last.port,
                  ReachabilityWord(last.found));
    }
}

Time ServiceProbes::NextDue() const {
    Time due = Time::max();
    for (const auto& [id, probe] : probes_) {
        due = std::min(due, probe.next);
    }
    return due;
}

void ServiceProbes::Restart(Time now) {
    for (auto& [id, probe] : probes_) {
        probe.next = now;
    }
}

Reachable ServiceProbes::Found(const std::string& id) const {
    const auto probe = probes_.find(id);
    return probe != probes_.end() ? probe->second.found : Reachable::Unknown;
}

} // namespace ZARO::Relay::app
