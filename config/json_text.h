/// JSON that comes from outside: parsed and read without a throw, whatever it holds.
///
/// jsoncpp throws on documents nested too deep and on access to a member of anything that is not
/// an object; everything in the library goes through these functions instead.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>

namespace ZARO::Relay::json {

/// Parses a whole text. False, `out` null, when it is no JSON or nested too deep.
bool Parse(const std::string& text, Json::Value& out);

/// The value on one line, with a newline at its end.
std::string OneLine(const Json::Value& value);

/// The value indented for people.
std::string Styled(const Json::Value& value);

/// The member `key`, or null when `object` is no object or has none.
const Json::Value* Find(const Json::Value& object, const char* key);

/// Takes the member `key` if it is there with that type; else false and `out` untouched.
bool Get(const Json::Value& object, const char* key, std::string& out);
bool Get(const Json::Value& object, const char* key, std::int32_t& out);

/// Makes `value` an empty object unless it is an object, so that members can be set.
Json::Value& Object(Json::Value& value);

/// Reads a whole regular file. False, `out` empty, when there is none, it can't be read, or it is
/// larger than anything this system writes. Never blocks on a FIFO.
bool ReadText(const std::string& path, std::string& out);

} // namespace ZARO::Relay::json
