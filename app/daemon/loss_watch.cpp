#include "app/daemon/loss_watch.h"

#include <algorithm>
#include <set>
#include <string>

#include "app/common/checks.h"
#include "daemon/log.h"

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
        listed.insert(TextMember(tunnel, "id"));
    }
    const auto lost =
        std::find_if(services.begin(), services.end(),
                     [&](const ServiceConf& service) { return listed.count(service.id) == 0; });
    if (lost == services.end()) {
        return false;
    }
    RELAY_LOG(4, "the server lists no tunnel for %s, registering anew",
              Printable(lost->id).c_str());
    quietUntil_ = now + kBetweenLosses;
    return true;
}

} // namespace ZARO::Relay::app
