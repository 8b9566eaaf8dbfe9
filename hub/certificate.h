/// The hub's self-signed HTTPS certificate.
#pragma once

#include <set>
#include <string>

#include "hub/web.h"

namespace ZARO::RelayHub {

/// What the certificate has to name: the loopback's names, the machine's host name, and `more`
/// (host names and IP addresses).
std::set<std::string> ServedNames(const std::set<std::string>& more);

/// A TLS context with the key and certificate in `file` (mode 0600). The certificate is made when
/// it is not there, does not name all of `names` or ends within three months, for the same key if
/// there is one; it then also names the addresses that the machine has at the moment, which come
/// and go. Null with the reason in `error`.
SslContext MakeTls(const std::string& file, const std::set<std::string>& names, std::string& error);

} // namespace ZARO::RelayHub
