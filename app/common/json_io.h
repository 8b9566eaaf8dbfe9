/// JSON for the programs: read without a throw, written compactly.
#pragma once

#include <json/value.h>

#include <string>

namespace ZARO::Relay::app {

/// Parses a whole document. False, with the place and the fault in `fault` if it is wanted, for
/// anything else, trailing text and nesting too deep included.
bool ParseJson(const std::string& text, Json::Value& out, std::string* fault = nullptr);

/// One line without a newline.
std::string CompactJson(const Json::Value& value);

/// Indented for people, with a newline at its end.
std::string StyledJson(const Json::Value& value);

/// The member, or null when `object` is no object or has none.
const Json::Value* FindMember(const Json::Value& object, const char* key);

} // namespace ZARO::Relay::app
