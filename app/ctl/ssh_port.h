/// The port in the SSH client's configuration.
#pragma once

#include <optional>
#include <string>

namespace ZARO::Relay::ctl {

/// The line that sets the port for every host, without its line end: the first "Port" before any
/// "Host" or "Match".
std::optional<std::string> PortLine(const std::string& config);

/// The configuration with that line replaced, or put on top where there is none; without it for
/// nothing. All other lines stay as they are.
std::string WithPortLine(const std::string& config, const std::optional<std::string>& line);

} // namespace ZARO::Relay::ctl
