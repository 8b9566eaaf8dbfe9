/// JSON that comes from outside: parsed and read without a throw, whatever it holds.
///
/// jsoncpp throws on documents nested too deep and on access to a member of anything that is not
/// an object. So everything in this system goes through these functions instead.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>

namespace ZARO::json {

/// What a document may look like. Its value is any JSON value, except with Strict.
enum class Grammar {
    Loose,  ///< comments are allowed, and so is anything behind the document
    Whole,  ///< comments are allowed, but only white space may follow the document
    Strict, ///< an array or an object of few levels, without comments or repeated keys
};

/// Parses a text. False, with `out` null, when it has another form or is nested too deep. Throws
/// bad_alloc, and nothing else.
bool Parse(const std::string& text, Json::Value& out, Grammar grammar = Grammar::Loose);

/// Parses with Grammar::Whole. For a bad document `fault` says on one line what is wrong and where.
bool Parse(const std::string& text, Json::Value& out, std::string& fault);

/// The value on one line, without a newline.
std::string Compact(const Json::Value& value);

/// The same with a newline at its end.
std::string OneLine(const Json::Value& value);

/// Indented by three blanks, with short lists on one line: the form of the files.
std::string Styled(const Json::Value& value);

/// Indented by two blanks, with one member per line: the form for people and their tools.
std::string Pretty(const Json::Value& value);

/// The member `key`, or null when `object` is not an object or lacks it.
const Json::Value* Find(const Json::Value& object, const char* key);

/// Takes the member `key` if it is there with that type; else false and `out` untouched.
bool Get(const Json::Value& object, const char* key, std::string& out);
bool Get(const Json::Value& object, const char* key, std::int32_t& out);

/// The member `key`; empty or 0 when it is missing or has another type.
std::string TextOf(const Json::Value& object, const char* key);
int NumberOf(const Json::Value& object, const char* key);

/// Makes `value` an empty object unless it is an object, so that members can be set.
Json::Value& Object(Json::Value& value);

} // namespace ZARO::json
