/// The services that the device defines and the list of those that it publishes.
#pragma once

#include <json/value.h>

#include <map>
#include <string>

#include <zarorelayd/config.h>

#include "app/ctl/config_change.h"

namespace ZARO::Relay::ctl {

struct ServiceEntry {
    ServiceConf conf;
    bool published = false;
};

/// By id.
using ServiceEntries = std::map<std::string, ServiceEntry>;

/// The published services of a configuration.
ServiceEntries ReadPublished(const Json::Value& config);

/// The same and all that the device defines. Settings in the configuration win.
ServiceEntries ReadServices(const Json::Value& config);

/// The service with that port: a published one first, else the first by id; empty for none.
std::string ServiceWithPort(const ServiceEntries& entries, int port);

/// Publishes or withdraws a service: changes only the list in the file. Writes nothing when there
/// is nothing to change. 0, or the exit code after printing the reason.
int ChangeServiceList(const ConfigChange& change, const std::string& id, bool publish,
                      bool& changed);

/// Prints that no service with one port has this id, with those that have, and gives the exit code.
int TellNoService(const std::string& id);

} // namespace ZARO::Relay::ctl
