/// The session with the control server, as its cookies carry it.
#pragma once

#include <list>
#include <string>

namespace ZARO::Relay::app {

/// "name=value; name=value" of cookie lines in Netscape form, for a request to another host. Lines
/// that are none, and cookies that would break the header, are left out; so are, when `open`, those
/// that must not go over an open connection. At most 4 KiB: what is beyond is left out too.
std::string SessionOf(const std::list<std::string>& lines, bool open);

} // namespace ZARO::Relay::app
