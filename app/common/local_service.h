/// The services of this device, as a tunnel reaches them.
#pragma once

#include <zarorelayd/config.h>

namespace ZARO::Relay::app {

/// Whether a local service accepts connections on a port of this machine.
enum class Reachable { Yes, Refuses, Unknown };
Reachable ProbeLocalPort(int port);

/// The port that a service's tunnel leads to: one service has a fixed one.
int LocalPort(const ServiceConf& service);

} // namespace ZARO::Relay::app
