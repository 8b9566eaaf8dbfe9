/// What the kernel tells about connections.
#pragma once

#include <sys/types.h>

#include <set>

#include <zarorelayd/config.h>

namespace ZARO::Relay::app {

/// The established connections whose local address is none of this machine's any more, read once
/// for all the processes that are asked about. Empty when that can't be told.
class LostSockets {
public:
    LostSockets();
    bool Has(pid_t pid) const;

private:
    std::set<unsigned long> inodes_;
};

/// Whether a local service accepts connections on a port of this machine.
enum class Reachable { Yes, Refuses, Unknown };
Reachable ProbeLocalPort(int port);

/// The port that a service's tunnel leads to: one service has a fixed one.
int LocalPort(const ServiceConf& service);

} // namespace ZARO::Relay::app
