/// Says what is wrong with a configuration file, without touching it.
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

namespace ZARO::Relay::app {

/// Reads a configuration file without moving a broken one aside, as the library would. An empty
/// object for a missing one when `mayBeMissing`. False, with a line that names the file in `fault`,
/// when it can't be read or is no JSON object.
bool ReadConfigFile(const std::string& path, bool mayBeMissing, Json::Value& config,
                    std::string& fault);

/// Each fault as one line that names the file and the key and says what was expected. Empty for a
/// good file, and for a missing one when `mayBeMissing`. `unusable`: the daemon can't start with
/// it.
std::vector<std::string> CheckConfigFile(const std::string& path, bool mayBeMissing,
                                         bool& unusable);

/// The same for a running daemon, which keeps what it has when `unusable`. It then does so as well
/// when the services are no list: for the library that means none.
std::vector<std::string> CheckReload(const std::string& path, bool mayBeMissing, bool& unusable);

} // namespace ZARO::Relay::app
