/// The services that this device publishes, and those that it could.
#pragma once

#include <string>

namespace ZARO::Relay::ctl {

// Each prints what there is to say and gives the program's exit code.

int ListServices(bool json);
int AddService(const std::string& id);
int RemoveService(const std::string& id);

} // namespace ZARO::Relay::ctl
