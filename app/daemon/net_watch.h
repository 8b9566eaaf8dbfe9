/// Tells when the device's addresses, links or routes change.
#pragma once

#include <set>
#include <string>

namespace ZARO::Relay::app {

/// Owns a routing netlink socket. Without one (no rights, no such kernel) it never tells; the rest
/// of the daemon then finds out by its time-outs.
class NetWatch {
public:
    NetWatch();
    NetWatch(const NetWatch&) = delete;
    NetWatch& operator=(const NetWatch&) = delete;
    ~NetWatch();

    /// To be watched for reading; -1 when there is none.
    int Descriptor() const { return fd_; }

    /// Takes what has arrived; true when anything did, lost messages included.
    bool Drain();

private:
    int fd_;
};

/// Every address of the device's interfaces that reaches further than the next link, each with its
/// interface. More than what is reported: also second addresses and those of IPv6. Empty when they
/// can't be had.
std::set<std::string> OwnAddresses();

} // namespace ZARO::Relay::app
