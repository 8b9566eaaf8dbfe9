/// What texts and numbers from outside must look like before anything is done with them.
#pragma once

#include <string>
namespace ZARO::Relay::app {

/// 1 to 63 of letters, digits, "_", "-", ".", not beginning with "-" or ".".
bool IsServiceId(const std::string& id);

/// A host name, "_" allowed as in local networks, or an IPv4 or IPv6 address.
bool IsRelayHost(const std::string& host);

/// A host as it stands in a URL, where an IPv6 address is in brackets.
bool IsUrlHost(const std::string& host);

/// A page on a server: up to 253 of letters, digits, "_", "-", ".", "/".
bool IsPagePath(const std::string& page);

/// 1 to 255 of letters, digits, ".", "_", "-", "+", "=", not beginning with "-".
bool IsRelayUser(const std::string& user);

bool IsPort(int port);

/// 1 to 63 of letters, digits, "_", "-", ".": nothing that has a meaning in a form.
bool IsAliasName(const std::string& name);

} // namespace ZARO::Relay::app
