/// Connections that a change of the network has cut.
#pragma once

#include <sys/types.h>

#include <set>

namespace ZARO::Relay::app {

/// The established connections whose local address this machine no longer has. Read once, for any
/// number of processes. Empty when the kernel does not show them.
class LostSockets {
public:
    LostSockets();
    /// Whether the process has one of them.
    bool Has(pid_t pid) const;

private:
    std::set<unsigned long> inodes_;
};

} // namespace ZARO::Relay::app
