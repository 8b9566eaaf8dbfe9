/// The services of the devices, each with its tunnel.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "hub/store_access.h"
#include "hub/store_ports.h"

namespace ZARO::RelayHub {

constexpr std::size_t kMaxServices = 256; ///< of one device

/// A service as its device describes it.
struct ServiceRecord {
    std::string id, name;
    int port = 0;
    int externalPort = -1; ///< -1 = unknown
};

/// The way from the internet to one service.
struct TunnelRecord {
    std::int64_t device = 0;
    std::string id, name;
    int port = 0;           ///< of the service, at the device
    std::int64_t relay = 0; ///< key of the relay that carries it
    std::string relayHost;  ///< what the relay says that it is called; "" = it doesn't
    int relayPort = 0;      ///< at the relay
    std::string user, password;
    bool up = false; ///< as the relay reported last
};

/// Names one tunnel among those of all relays.
struct TunnelKey {
    std::int64_t relay = 0;
    std::string user;
};

/// A tunnel whose port was opened for visitors or closed.
struct TunnelStatus {
    std::int64_t device = 0;
    std::string user; ///< of the tunnel
    bool up = false;
    std::int64_t relay = 0; ///< that reports it; 0 = whichever carries the tunnel
};

/// Any thread may call any method. They block for the database only and don't throw.
class ServiceStore {
public:
    ServiceStore(StoreAccess& access, PortStore& ports) : access_(access), ports_(ports) {}

    /// Removes the services `removed`, then adds or changes those in `present`; stale ones that
    /// `present` does not name go too. On Done `touched` holds the tunnels that came to be
    /// or ceased to be.
    StoreResult Update(std::int64_t device, const std::vector<ServiceRecord>& present,
                       const std::vector<std::string>& removed, std::vector<TunnelKey>& touched);
    /// Removes the services that the device has not named since it registered; `touched` as above.
    StoreResult DropStale(std::int64_t device, std::vector<TunnelKey>& touched);

    /// The device's tunnels in order of their ids. NotFound when it is no longer admitted.
    StoreResult ListTunnels(std::int64_t device, std::vector<TunnelRecord>& tunnels);
    /// The tunnels that the relay carries.
    StoreResult TunnelsOf(std::int64_t relay, std::vector<TunnelRecord>& tunnels);
    /// Whether the relay carries any tunnel. False too when the database fails.
    bool HasTunnels(std::int64_t relay);
    /// The tunnel that this user may log in for, else NotFound.
    StoreResult FindTunnel(const std::string& user, TunnelRecord& tunnel);

    /// The revision of the device's tunnel list, 1 to 2^31-1: a number that changes with the list.
    StoreResult Revision(std::int64_t device, int& revision);
    /// Gives the list its next revision.
    StoreResult BumpRevision(std::int64_t device, int& revision);
    /// Keeps these statuses and gives the list of each device among them its next revision, all in
    /// one transaction. A tunnel that is gone or that another relay carries by now keeps its own.
    StoreResult ReportStatus(const std::vector<TunnelStatus>& changes);
    /// The relay has no session any more, as at its start: all of its tunnels are down, and their
    /// devices' lists get their next revision.
    StoreResult ReportRelayDown(std::int64_t relay);

    /// A step of a piece of work on the database: removes all services of the device, frees their
    /// ports and gives the list its next revision. Adds the tunnels that ceased to be to `gone`.
    static void RemoveAll(Database& database, std::int64_t device, std::vector<TunnelKey>& gone);

private:
    /// A step of a piece of work on the database: a new tunnel, unless every port is taken.
    bool Add(Database& database, std::int64_t device, const ServiceRecord& service,
             std::vector<TunnelKey>& touched);

    StoreAccess& access_;
    PortStore& ports_;
};

} // namespace ZARO::RelayHub
