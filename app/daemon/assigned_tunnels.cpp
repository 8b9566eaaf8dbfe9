#include "app/daemon/assigned_tunnels.h"

#include <zarorelayd/daemon.h>

#include "app/daemon/server_reply.h"
#include "base/log.h"

namespace ZARO::Relay::app {

namespace {

/// How many refusals of one list are logged.
constexpr std::size_t kMostRefusals = 5;

} // namespace

std::map<std::string, AssignedTunnel>
AssignedTunnels::Read(const Json::Value& list, const std::list<ServiceConf>& services) {
    std::map<std::string, AssignedTunnel> good;
    std::set<std::string> reasons;
    unsigned refused = 0;
    for (const Json::Value& entry : list) {
        Json::Value tunnel;
        std::string why;
        if (CheckTunnel(entry, services, tunnel, why)) {
            const Json::Value& answers = entry["relay_up"];
            good.emplace(tunnel["id"].asString(),
                         AssignedTunnel{Tunnel(tunnel), !answers.isBool() || answers.asBool()});
            continue;
        }
        ++refused;
        if (reasons.size() < kMostRefusals && reasons.insert(why).second &&
            refused_.count(why) == 0) {
            RELAY_LOG(log::Error, "refused a tunnel from the server: %s", why.c_str());
        }
    }
    if (refused > kMostRefusals && refused_.size() < kMostRefusals) {
        RELAY_LOG(log::Error, "refused %u tunnels from the server", refused);
    }
    refused_.swap(reasons);
    return good;
}

} // namespace ZARO::Relay::app
