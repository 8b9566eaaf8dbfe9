/// Whether the services of this device answer where a tunnel reaches them.
#pragma once

namespace ZARO::Relay::app {

/// Whether a local service accepts connections on a port of this machine.
enum class Reachable { Yes, Refuses, Unknown };
Reachable ProbeLocalPort(int port);
/// "reachable", "refused" or "unknown", as the status file and the command line show it.
const char* ReachabilityWord(Reachable reachable);

} // namespace ZARO::Relay::app
