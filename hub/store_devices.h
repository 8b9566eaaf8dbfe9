/// The devices that were admitted, and their sessions.
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>

#include "hub/store_access.h"

namespace ZARO::RelayHub {

constexpr int kMaxDevices = 10000;
constexpr int kKeptSessions = 4; ///< of one device, the newest ones

struct Device {
    std::int64_t key = 0; ///< in the database
    std::string serverId;
};

/// What a device says of itself; every text is checked already.
struct Identity {
    std::string serial, token, mac, timezone, serverId;
};

/// Any thread may call any method. They block for the database only and don't throw.
class DeviceStore {
public:
    explicit DeviceStore(StoreAccess& access) : access_(access) {}

    /// Whether any device was ever admitted. False too when the database fails.
    bool HasAny();

    /// How many there are, at most some seconds ago. Blocks for the database only then.
    std::int64_t Count();

    /// Admits a device: Refused when its serial first came with another token, or when its server
    /// id is another device's. Its services become stale until it names them again. `session` is
    /// the hash of its new session.
    StoreResult Register(const Identity& identity, const std::string& session, Device& device);
    /// The device that has the session with this hash, else NotFound.
    StoreResult FindSession(const std::string& session, Device& device);
    /// The device with these credentials, else Refused.
    StoreResult Authenticate(const std::string& serial, const std::string& token,
                             const std::string& serverId, Device& device);
    /// Keeps what the device says of its network, as JSON.
    StoreResult SetNetwork(std::int64_t device, const std::string& network);

private:
    // The steps below run inside a piece of work on the database.

    /// Adds the device or takes over what changed.
    StoreResult Admit(Database& database, const Identity& identity, std::int64_t& key);
    StoreResult Add(Database& database, const Identity& identity, const std::string& token,
                    std::int64_t& key);
    /// Whether there may be one more device, which is counted at once. The real number is looked up
    /// every 10 s only; several control servers may exceed the limit by what they add meanwhile.
    bool TakeRoom(Database& database);

    StoreAccess& access_;
    /// Whether the number is too old. With the lock, as the next one.
    bool IsCountOld() const;
    /// The number, looked up if the last one is too old.
    std::int64_t Counted(Database& database);

    std::mutex mutex_; ///< for what follows
    std::int64_t count_ = 0;
    std::chrono::steady_clock::time_point counted_; ///< the epoch = never
};

} // namespace ZARO::RelayHub
