/// What the device takes from outside, beside the rules that it shares with the hub.
#pragma once

#include <string>

namespace ZARO::Relay::app {

/// A host name or an IPv4 or IPv6 address.
bool IsRelayHost(const std::string& host);

/// A host as it stands in a URL, where an IPv6 address is in brackets.
bool IsUrlHost(const std::string& host);

/// A page on a server: up to 253 of letters, digits, "_", "-", ".", "/".
bool IsPagePath(const std::string& page);

/// 1 to 255 of letters, digits, ".", "_", "-", "+", "=", not beginning with "-".
bool IsRelayUser(const std::string& user);

/// An alias that may go to a server: 1 to 63 of letters, digits, "_", "-", ".", of which none has a
/// meaning in a form. Servers differ in what they accept, so the daemon leaves the rest to them.
bool IsAliasName(const std::string& name);

} // namespace ZARO::Relay::app
