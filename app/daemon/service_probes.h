/// Whether the published services accept connections on this device.
#pragma once

#include <list>
#include <map>
#include <string>

#include <zarorelayd/config.h>

#include "app/common/clock.h"
#include "app/common/local_service.h"

namespace ZARO::Relay::app {

/// Probes each service once per minute and logs when one starts or stops refusing connections.
/// For the daemon's one loop; a probe holds it for some milliseconds at most.
class ServiceProbes {
public:
    /// Probes what is due, and forgets services that are not in the list.
    void Probe(const std::list<ServiceConf>& services, Time now);
    /// When Probe is to be called next, for the services that it knows.
    Time NextDue() const;
    /// Every service is due now.
    void Restart(Time now);
    /// What the last probe of a service found.
    Reachable Found(const std::string& id) const;

private:
    struct LastProbe {
        int port = 0;
        Time next{};
        Reachable found = Reachable::Unknown;
    };

    static void ProbeOne(const ServiceConf& service, LastProbe& last);

    std::map<std::string, LastProbe> probes_; ///< by service id
};

} // namespace ZARO::Relay::app
