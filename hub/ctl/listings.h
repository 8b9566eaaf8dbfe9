/// The commands that show something.
#pragma once

#include <string>

namespace ZARO::RelayHub::ctl {

// Each asks the hub on the folder `data`, prints a table or, with `json`, one document, and gives
// the exit code.

int ShowStatus(const std::string& data, bool json);
/// `state`: pending, admitted or banned; empty = all devices.
int ListDevices(const std::string& data, const std::string& state, bool json);
/// `device`: a serial, server id or alias.
int ShowDevice(const std::string& data, const std::string& device, bool json);
int ListRelays(const std::string& data, bool json);

} // namespace ZARO::RelayHub::ctl
