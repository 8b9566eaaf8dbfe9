/// Which names and ids of devices are well-formed, beside the rules that the devices share.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace ZARO::RelayHub {

/// 1 to 35 letters, digits, "-", "_", ".".
bool IsSerial(const std::string& text);

/// 1 to 32 visible ASCII characters.
bool IsToken(const std::string& text);

/// At most `longest` bytes without a control character; may be empty.
bool IsShortText(const std::string& text, std::size_t longest);

/// What may stand in a URL: a host name, an IPv4 address or an IPv6 address in brackets.
bool IsUrlHost(const std::string& text);

/// The id that a device with this MAC address (six pairs of hex digits, with or without separators)
/// computes for itself. Nothing when the MAC is malformed.
std::optional<std::string> ServerIdOf(const std::string& mac);

} // namespace ZARO::RelayHub
