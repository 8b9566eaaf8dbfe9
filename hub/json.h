/// JSON from strangers, and JSON for the wire.
#pragma once

#include <json/value.h>

#include <string>

namespace ZARO::RelayHub {

/// Parses one JSON document that is an array or an object of few levels, without comments or
/// repeated keys and with nothing behind it.
bool ParseJson(const std::string& text, Json::Value& value);

/// One line of JSON, without a line end.
std::string ToLine(const Json::Value& value);

} // namespace ZARO::RelayHub
