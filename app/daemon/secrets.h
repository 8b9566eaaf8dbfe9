/// Credentials in what the daemon shows of itself.
#pragma once

#include <json/value.h>

namespace ZARO::Relay::app {

/// Replaces every password, token and cookie in a dump by "***", also inside request bodies.
void MaskSecrets(Json::Value& value);

} // namespace ZARO::Relay::app
