/// What the kernel tells about connections.
#pragma once

#include <sys/types.h>

namespace ZARO::Relay::app {

/// Whether a process has an established connection whose local address is none of this machine's
/// any more. False when that can't be told.
bool HasLostAddress(pid_t pid);

/// Whether a local service accepts connections on a port of this machine.
enum class Reachable { Yes, Refuses, Unknown };
Reachable ProbeLocalPort(int port);

} // namespace ZARO::Relay::app
