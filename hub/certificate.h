/// The hub's self-signed HTTPS certificate.
#pragma once

#include <set>
#include <string>

#include "hub/web_stream.h"

namespace ZARO::RelayHub {

/// The names that the certificate must have: those of the loopback, the machine's host name, and
/// `more` (host names and IP addresses).
std::set<std::string> ServedNames(const std::set<std::string>& more);

/// A TLS context with the key and certificate in `file` (mode 0600). A new certificate is made when
/// there is none, when it lacks one of `names`, or when it ends within three months. It keeps the
/// key if there is one, and also has the addresses that the machine has at the moment. Null with
/// the reason in `error`.
SslContext MakeTls(const std::string& file, const std::set<std::string>& names, std::string& error);

} // namespace ZARO::RelayHub
