/// The names, addresses and ports on which device and hub agree: which ones are well-formed, how
/// they are written, and the id that follows from a hardware address.
#pragma once

#include <cstddef>
#include <cstdint>
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

/// A host as it stands in a URL: an IPv6 address gets brackets.
std::string ForUrl(const std::string& host);

/// 1 to 65535.
bool IsPort(int port);

/// The server id of a device whose hardware address ends in these 24 bits. Two check bits are
/// appended, the parity of the odd bits and that of all; the id is the number as nine digits.
std::string ServerIdOf(std::uint32_t bits);

} // namespace ZARO
