/// What the kernel tells about connections.
#pragma once

#include <sys/types.h>

#include <zarorelayd/config.h>

namespace ZARO::Relay::app {

/// Whether a process has an established connection whose local address is none of this machine's
/// any more. False when that can't be told.
bool HasLostAddress(pid_t pid);

/// Whether a local service accepts connections on a port of this machine.
enum class Reachable { Yes, Refuses, Unknown };
Reachable ProbeLocalPort(int port);

/// The port that a service's tunnel leads to: one service has a fixed one.
int LocalPort(const ServiceConf& service);

} // namespace ZARO::Relay::app
