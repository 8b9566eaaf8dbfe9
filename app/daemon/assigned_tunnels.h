/// The tunnels that the wait-command server assigns to this device.
#pragma once

#include <json/value.h>

#include <list>
#include <map>
#include <set>
#include <string>

#include <zarorelayd/config.h>
#include <zarorelayd/tunnel.h>

namespace ZARO::Relay::app {

struct AssignedTunnel {
    Tunnel tunnel;     ///< as it is to be built
    bool relayAnswers; ///< the relay's port answers, as far as the server knows
};

/// Reads the server's lists. A tunnel that fails the checks is left out, and the log tells why,
/// once for as long as it is refused.
class AssignedTunnels {
public:
    /// More than any device publishes; a longer list is not to be read.
    static constexpr Json::ArrayIndex kMost = 256;

    /// The good tunnels of an array, by service id. The first one of a service counts.
    std::map<std::string, AssignedTunnel> Read(const Json::Value& list,
                                               const std::list<ServiceConf>& services);

private:
    std::set<std::string> refused_; ///< what the last list was refused for
};

} // namespace ZARO::Relay::app
