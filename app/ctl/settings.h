/// Alias, log and server id.
#pragma once

#include <string>

namespace ZARO::Relay::ctl {

// Each prints what there is to say and gives the program's exit code.

int ShowAlias(bool json);
/// An empty name removes the alias.
int SetAlias(const std::string& name);

int StartLog(const std::string& file);
int StopLog();

int ShowServerId();
/// 0 when the id is this device's, else 1.
int VerifyServerId(const std::string& id);

} // namespace ZARO::Relay::ctl
