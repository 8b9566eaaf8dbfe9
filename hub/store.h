/// What the hub knows: devices, their sessions, services with their tunnels, and aliases.
#pragma once

#include <chrono>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "hub/database.h"
#include "hub/log.h"

namespace ZARO::RelayHub {

constexpr int kMaxDevices = 10000;
constexpr int kMaxServices = 256; ///< of one device
constexpr int kKeptSessions = 4;  ///< of one device, the newest ones

enum class StoreResult {
    Done,
    Refused, ///< wrong credentials, or another device's id
    NotFound,
    Taken, ///< by another device
    Full,  ///< no port, or too many services or devices
    Fault, ///< the database failed; it is logged
};

struct Device {
    std::int64_t key = 0;
    std::string serverId;
};

/// What a device says of itself; every text is checked already.
struct Identity {
    std::string serial, token, mac, timezone, serverId;
};

/// A service as its device describes it. `externalPort` -1 = unknown.
struct ServiceRecord {
    std::string id, name;
    int port = 0;
    int externalPort = -1;
};

/// The way from the internet to one service.
struct TunnelRecord {
    std::int64_t device = 0;
    std::string id, name;
    int port = 0;      ///< of the service, at the device
    int relayPort = 0; ///< at the hub
    std::string user, password;
};

/// The ports that tunnels get, and a test whether one is usable at the moment. When it throws, the
/// change that needed a port fails.
struct PortPool {
    int first = 20000;
    int last = 29999;
    std::function<bool(int)> isFree;
};

/// All methods may be called from any thread, block for the database only and don't throw. A change
/// is complete or not made at all. It survives the end of this process as soon as the method
/// returns; after a loss of power the newest changes may be missing, which devices mend by
/// registering anew.
class Store {
public:
    /// Opens or makes the database file, mode 0600. False with the reason in `error`.
    bool Open(const std::string& file, PortPool pool, std::string* error);

    /// Whether any device was ever admitted.
    bool HasDevices();

    /// Admits a device: Refused when the serial is pinned to another token or the server id is
    /// another device's. Its services become stale until it names them again. `session` is the hash
    /// of its new session.
    StoreResult Register(const Identity& identity, const std::string& session, Device* device);
    /// NotFound for an unknown session.
    StoreResult FindSession(const std::string& session, Device* device);
    /// The device with these credentials, else Refused.
    StoreResult Authenticate(const std::string& serial, const std::string& token,
                             const std::string& serverId, Device* device);
    StoreResult SetNetwork(std::int64_t device, const std::string& network);

    /// Removes, then adds or changes services; stale ones that are not named go too. `gone` gets
    /// the users of the tunnels that ceased to be.
    StoreResult UpdateServices(std::int64_t device, const std::vector<ServiceRecord>& present,
                               const std::vector<std::string>& removed,
                               std::vector<std::string>* gone);
    StoreResult DropStaleServices(std::int64_t device, std::vector<std::string>* gone);
    /// In order of their ids.
    StoreResult ListTunnels(std::int64_t device, std::vector<TunnelRecord>* tunnels);
    StoreResult FindTunnel(const std::string& user, TunnelRecord* tunnel);

    /// The number of the state of a device's tunnel list, 1 to 2^31-1.
    StoreResult Revision(std::int64_t device, int* revision);
    StoreResult BumpRevision(std::int64_t device, int* revision);

    /// Gives `name` to the device until it is not kept alive for `ttl`; its former name is free
    /// then. Taken when it is another device's.
    StoreResult MapAlias(const std::string& name, std::int64_t device, std::chrono::seconds ttl);
    StoreResult KeepAlias(const std::string& name, std::int64_t device, std::chrono::seconds ttl);
    StoreResult DeleteAlias(const std::string& name, std::int64_t device);
    StoreResult FindAlias(const std::string& name, Device* device);

private:
    template <typename Work> StoreResult Read(const char* what, Work work);
    template <typename Work> StoreResult Write(const char* what, Work work);
    void Prepare(const std::string& file);
    /// The version of the tables, 0 = there are none.
    int Schema();

    // The steps below run inside Read or Write.
    StoreResult Admit(const Identity& identity, Device* device);
    void AddSession(std::int64_t device, const std::string& session);
    /// Adds the service or changes it; `changed` is raised when the tunnel list differs.
    StoreResult Put(std::int64_t device, const ServiceRecord& service, bool* changed);
    StoreResult Add(std::int64_t device, const ServiceRecord& service);
    void DropStale(std::int64_t device, std::vector<std::string>* gone);
    std::optional<int> NextPort();
    int Bump(std::int64_t device);
    /// Whose the name is, as far as `device` is concerned; 0 = free. Once it was not kept alive,
    /// it is still its device's until another one wants it.
    std::int64_t OwnerOf(const std::string& name, std::int64_t device);

    std::mutex mutex_;
    Database database_;
    PortPool pool_;
    LogQuota shortages_;
};

} // namespace ZARO::RelayHub
