/// Where the daemon's log goes.
#pragma once

#include <string>

#include <zarorelayd/config.h>

namespace ZARO::Relay::app {

/// The log file of a configuration, closed to others; empty, and logged, when it can't be used: a
/// daemon in the background then logs to the system log rather than to nowhere.
std::string UsableLogFile(const RelaydConf& conf);

/// Puts a configuration's log settings in force. In the foreground, where the library leaves
/// standard error alone, a log file takes its place, and it comes back when the log file is taken
/// out of the configuration.
void ApplyLogSettings(const RelaydConf& conf);

} // namespace ZARO::Relay::app
