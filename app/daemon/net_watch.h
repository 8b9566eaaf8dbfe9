/// Tells when the device's addresses, links or routes change.
#pragma once

#include <set>
#include <string>

#include "base/unique_fd.h"

namespace ZARO::Relay::app {

/// Owns a routing netlink socket. Without one (no rights, another kernel) it reports nothing, and
/// the rest of the daemon notices a change by its time-outs.
class NetWatch {
public:
    NetWatch();

    /// To be watched for reading; -1 when there is none.
    int Descriptor() const { return fd_.Get(); }

    /// Reads what has arrived. True when there was anything, lost messages included.
    bool Drain();

private:
    UniqueFd fd_;
};

/// Every address of the device's interfaces but the link-local ones of IPv6, as "INTERFACE
/// ADDRESS". More than the server is told: also second addresses and those of IPv6. Empty when the
/// system names none.
std::set<std::string> OwnAddresses();

} // namespace ZARO::Relay::app
