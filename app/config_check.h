/// Says what is wrong with a configuration file, without touching it.
#pragma once

#include <string>
#include <vector>

namespace ZARO::Relay::app {

/// Each fault as one line that names the file and the key and says what was expected. Empty for a
/// good file, and for a missing one when `mayBeMissing`. `unusable`: the daemon can't start with
/// it.
std::vector<std::string> CheckConfigFile(const std::string& path, bool mayBeMissing,
                                         bool& unusable);

} // namespace ZARO::Relay::app
