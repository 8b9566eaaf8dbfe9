/// What names, numbers and bodies from outside must look like before anything is done with them.
#pragma once

#include <json/value.h>

#include <map>
#include <optional>
#include <string>

namespace ZARO::RelayHub {

/// 1 to 35 letters, digits, "-", "_", ".".
bool IsSerial(const std::string& text);

/// 1 to 32 visible ASCII characters.
bool IsToken(const std::string& text);

/// 1 to 63 letters, digits, "_", "-", "."; neither "-" nor "." comes first.
bool IsServiceId(const std::string& text);

/// 1 to 63 of a-z, 0-9, "-".
bool IsAliasName(const std::string& text);

/// At most `longest` bytes without a control character; may be empty.
bool IsShortText(const std::string& text, std::size_t longest);

/// An IPv4 or IPv6 address.
bool IsAddress(const std::string& text);

/// A host name or an IPv4 address; with `bracketed` also an IPv6 address in brackets.
bool IsHost(const std::string& text, bool bracketed);

/// The id that a device with this MAC address (six pairs of hex digits, with or without separators)
/// computes for itself: nine or more digits. Nothing when the MAC is malformed.
std::optional<std::string> ServerIdOf(const std::string& mac);

/// How a request reached the hub, so that a reply can lead back the same way.
struct Origin {
    std::string scheme; ///< "http" or "https"
    std::string host;   ///< an IPv6 address is in brackets
    int port = 0;
    std::string peer; ///< address of the client
};

/// Takes a Host header apart. Nothing when it is malformed.
std::optional<Origin> ParseHost(const std::string& scheme, const std::string& header);

/// Parses one JSON document that is an array or an object. Unlike the parser's own default nothing
/// but white space may follow it, comments and repeated keys are refused, and so is nesting that
/// could exhaust the stack, and more values than a batch can need.
bool ParseJson(const std::string& text, Json::Value* value);

/// One line of JSON.
std::string ToLine(const Json::Value& value);

/// The fields of a form body. Values come escaped or not at all, so "%41" is "A" but "+" stays "+"
/// and a lone "%" stays too.
std::map<std::string, std::string> ParseForm(const std::string& body);

/// The value of cookie `name` in a Cookie header, or "".
std::string CookieValue(const std::string& header, const std::string& name);

} // namespace ZARO::RelayHub
