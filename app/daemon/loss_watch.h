/// Notices that the control server has lost what it had acknowledged.
#pragma once

#include <json/value.h>

#include <list>

#include <zarorelayd/config.h>

#include "app/common/clock.h"

namespace ZARO::Relay::app {

/// A server that was put back to an older state has lost the services that it acknowledged since
/// then, and lists no tunnel for them.
class LossWatch {
public:
    /// Whether `tunnels`, an array, has none for one of the published services; logged. After a
    /// loss it answers false for ten minutes: a server that never gives a tunnel must not be asked
    /// over and over.
    bool FindsLoss(const Json::Value& tunnels, const std::list<ServiceConf>& services, Time now);

private:
    Time quietUntil_{};
};

} // namespace ZARO::Relay::app
