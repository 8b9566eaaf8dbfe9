/// The daemon's settings, from a configuration file that was read and checked.
#pragma once

#include <json/value.h>

#include <zarorelayd/config.h>

namespace ZARO::Relay::app {

/// The defaults and, over them, the document; null stands for no file. Unlike the check, the
/// library logs here what it can't use.
RelaydConf SettingsFrom(const Json::Value& document);

/// The same for a daemon that runs with `current`: as RelaydConf::Reload does, but without reading
/// the file again, it keeps what the platform and the control server have said since. The
/// wait-command server is kept only while the control server, which named it, stays the same.
RelaydConf SettingsAfter(const RelaydConf& current, const Json::Value& document);

} // namespace ZARO::Relay::app
