/// What the kernel tells about connections.
#pragma once

#include <sys/types.h>

#include <set>
#include <string>

namespace ZARO::Relay::app {

/// Whether a process has an established IPv4 connection whose local address is neither one of
/// `addresses` nor a loopback one. False when that can't be told.
bool HasLostAddress(pid_t pid, const std::set<std::string>& addresses);

/// Whether a local service accepts connections on a port of this machine.
enum class Reachable { Yes, Refuses, Unknown };
Reachable ProbeLocalPort(int port);

} // namespace ZARO::Relay::app
