/// A question to the running hub.
#pragma once

#include <json/value.h>

#include <string>

namespace ZARO::RelayHub::ctl {

/// Sends a request through the socket in the hub's data folder and waits for the reply, a minute at
/// most. kSuccess with the `reply`, which is an object. Else what went wrong is printed, and the
/// result is the exit code.
int Ask(const std::string& data, const Json::Value& request, Json::Value& reply);

} // namespace ZARO::RelayHub::ctl
