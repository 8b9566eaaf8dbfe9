/// The hub's self-signed HTTPS certificate.
#pragma once

#include <set>
#include <string>

#include "hub/web.h"

namespace ZARO::RelayHub {

/// What the certificate has to name: the loopback's names, the machine's host name, the addresses
/// of its interfaces, and `more` (host names and IP addresses).
std::set<std::string> ServedNames(const std::set<std::string>& more);

/// A TLS context with the key and certificate in `file` (mode 0600), which is made when it is not
/// there, does not name all of `names` or ends within three months. Null with the reason in
/// `error`.
SslContext MakeTls(const std::string& file, const std::set<std::string>& names, std::string* error);

} // namespace ZARO::RelayHub
