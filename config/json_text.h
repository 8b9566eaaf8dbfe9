/// JSON that comes from outside: parsed and read without a throw, whatever it holds.
///
/// jsoncpp throws on documents nested too deep and on access to a member of anything that is not
/// an object; everything in the library goes through these functions instead.
#pragma once

#include <json/value.h>
#include <sys/types.h>

#include <cstdint>
#include <string>

namespace ZARO::Relay::json {

/// Parses a whole text. False, `out` null, when it is no JSON or nested too deep. Throws bad_alloc,
/// and nothing else.
bool Parse(const std::string& text, Json::Value& out);

/// The value on one line, with a newline at its end.
std::string OneLine(const Json::Value& value);

/// The value indented for people.
std::string Styled(const Json::Value& value);

/// The member `key`, or null when `object` is no object or lacks it.
const Json::Value* Find(const Json::Value& object, const char* key);

/// Takes the member `key` if it is there with that type; else false and `out` untouched.
bool Get(const Json::Value& object, const char* key, std::string& out);
bool Get(const Json::Value& object, const char* key, std::int32_t& out);

/// Makes `value` an empty object unless it is an object, so that members can be set.
Json::Value& Object(Json::Value& value);

/// What became of reading a file.
enum class Reading {
    Done,
    Missing,    ///< there is none, or a folder on the way to it is missing
    Unreadable, ///< it is there; errno tells why it can't be read
};

/// Whether to read through a link. Refused, which is for folders where anybody can make one, a link
/// counts as a missing file.
enum class Links { Follow, Refuse };

/// A file's text, and which file it was.
struct FileText {
    std::string text;
    bool opened = false; ///< false also for a file that is there but can't be opened
    dev_t device = 0;
    ino_t inode = 0;
    uid_t owner = 0;
};

/// Reads a whole regular file that is not larger than anything this system writes. The text is
/// empty unless it is done. Never blocks on a FIFO.
Reading ReadText(const std::string& path, FileText& out, Links links = Links::Follow);

} // namespace ZARO::Relay::json
