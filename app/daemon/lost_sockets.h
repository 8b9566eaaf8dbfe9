/// Connections that a change of the network has cut.
#pragma once

#include <sys/types.h>

#include <set>

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

} // namespace ZARO::Relay::app
