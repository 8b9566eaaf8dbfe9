/// The services of the devices, each with its tunnel.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "hub/log.h"
#include "hub/store_access.h"

namespace ZARO::RelayHub {

constexpr int kMaxServices = 256; ///< of one device

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
    std::int64_t relay = 0; ///< key of the relay that carries it; 0 = this hub's only one
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
};

/// The ports that tunnels get, and a test whether one is usable at the moment. When the test
/// throws, the change that needed a port fails.
struct PortPool {
    int first = 20000;
    int last = 29999;
    std::function<bool(int)> isFree;
};

/// Any thread may call any method. They block for the database only and don't throw.
class ServiceStore {
public:
    explicit ServiceStore(StoreAccess& access) : access_(access) {}

    /// To be called before anything else.
    void UsePorts(PortPool pool) { pool_ = std::move(pool); }

    /// Removes the services `removed`, then adds or changes those in `present`; stale ones that
    /// `present` does not name go too. On Done `gone` holds the tunnels that ceased to be.
    StoreResult Update(std::int64_t device, const std::vector<ServiceRecord>& present,
                       const std::vector<std::string>& removed, std::vector<TunnelKey>& gone);
    /// Removes the services that the device has not named since it registered; `gone` as above.
    StoreResult DropStale(std::int64_t device, std::vector<TunnelKey>& gone);

    /// The device's tunnels in order of their ids.
    StoreResult ListTunnels(std::int64_t device, std::vector<TunnelRecord>& tunnels);
    /// The tunnel that this user may log in for, else NotFound.
    StoreResult FindTunnel(const std::string& user, TunnelRecord& tunnel);

    /// The revision of the device's tunnel list, 1 to 2^31-1: a number that changes with the list.
    StoreResult Revision(std::int64_t device, int& revision);
    /// Gives the list its next revision.
    StoreResult BumpRevision(std::int64_t device, int& revision);
    /// Keeps these statuses and gives the list of each device among them its next revision, all in
    /// one transaction.
    StoreResult ReportStatus(const std::vector<TunnelStatus>& changes);

private:
    // The steps below run inside a piece of work on the database.

    /// Adds the service or changes it; `changed` becomes true when the tunnel list differs.
    StoreResult Put(Database& database, std::int64_t device, const ServiceRecord& service,
                    bool& changed);
    StoreResult Add(Database& database, std::int64_t device, const ServiceRecord& service);
    /// A port for a new tunnel, unless all are taken.
    std::optional<int> NextPort(Database& database);

    StoreAccess& access_;
    PortPool pool_;
    LogQuota shortages_;
};

} // namespace ZARO::RelayHub
