#include "app/daemon/loss_watch.h"

#include <algorithm>
#include <set>
#include <string>

#include <zarorelayd/daemon.h>

#include "base/json.h"
#include "base/log.h"
#include "base/text.h"

namespace ZARO::Relay::app {

namespace {

constexpr seconds kBetweenLosses{600};

} // namespace

bool LossWatch::FindsLoss(const Json::Value& tunnels, const std::list<ServiceConf>& services,
                          Time now) {
    if (now < quietUntil_) {
        return false;
    }
    std::set<std::string> listed;
    for (const Json::Value& tunnel : tunnels) {
        listed.insert(json::TextOf(tunnel, "id"));
    }
    const auto lost =
        std::find_if(services.begin(), services.end(),
                     [&](const ServiceConf& service) { return listed.count(service.id) == 0; });
    if (lost == services.end()) {
        return false;
    }
    RELAY_LOG(log::Warning, "the server lists no tunnel for %s, registering again",
              Printable(lost->id).c_str());
    quietUntil_ = now + kBetweenLosses;
    return true;
}

} // namespace ZARO::Relay::app
