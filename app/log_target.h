/// Where the daemon's log goes.
#pragma once

#include <zarorelayd/config.h>

namespace ZARO::Relay::app {

/// Puts a configuration's log settings in force. In the foreground, where the library leaves
/// standard error alone, a log file takes its place, and it comes back when the log file is taken
/// out of the configuration.
void ApplyLogSettings(const RelaydConf& conf);

} // namespace ZARO::Relay::app
