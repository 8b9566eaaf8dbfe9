/// Which names, addresses and ports from outside are well-formed; device and hub agree on these.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace ZARO {

/// Whether a text has 1 to `longest` characters, each a letter, a digit or one of `others`.
bool IsMadeOf(const std::string& text, std::size_t longest, std::string_view others);

/// 1 to 63 letters, digits, "_", "-", "."; neither "-" nor "." comes first.
bool IsServiceId(const std::string& text);

/// An alias that users may choose: 1 to 63 of a-z, 0-9, "-".
bool IsPlainAliasName(const std::string& text);

/// A host name, in which "_" is allowed as in local networks, or an IPv4 address.
bool IsHostName(const std::string& text);

/// An IPv4 or IPv6 address.
bool IsAddress(const std::string& text);

/// 1 to 65535.
bool IsPort(int port);

} // namespace ZARO
