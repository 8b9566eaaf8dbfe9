/// The services that this device publishes, and those that it could.
#pragma once

#include <string>

namespace ZARO::Relay::ctl {

// Each gives the program's exit code, with everything told.

int ListServices(bool json);
int AddService(const std::string& id);
int RemoveService(const std::string& id);

} // namespace ZARO::Relay::ctl
