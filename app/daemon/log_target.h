/// Where the daemon's log goes.
#pragma once

#include <string>

#include <zarorelayd/config.h>

namespace ZARO::Relay::app {

/// The log file of a configuration, closed to others; empty, and logged, when it can't be used: a
/// daemon in the background then logs to the system log rather than to nowhere.
std::string UsableLogFile(const RelaydConf& conf);

/// Puts a configuration's log settings in force. In the foreground the library leaves standard
/// error alone; there the log file replaces it until the configuration names none any more.
void ApplyLogSettings(const RelaydConf& conf);

} // namespace ZARO::Relay::app
