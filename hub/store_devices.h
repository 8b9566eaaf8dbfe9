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

/// The token as the database has it. The serial goes in too, so that equal tokens of two devices
/// don't look equal there.
std::string HashToken(const Identity& identity);

/// How the hub stands to a device.
enum class Standing {
    Admitted,
    Unknown,
    OtherToken, ///< its serial first came with another token
    OtherId,    ///< its server id is another device's
    Banned,
    Pending,     ///< it waits for the operator
    Crowded,     ///< it can't wait, as too many do
    CodeUnknown, ///< its invitation was never given out
    CodeExpired,
    CodeUsed,
};

/// Any thread may call any method. They block for the database only and don't throw.
class DeviceStore {
public:
    explicit DeviceStore(StoreAccess& access) : access_(access) {}

    /// From now on only those devices are admitted that were invited or chosen by the operator.
    /// Before any thread uses the store.
    void AdmitListedOnly() { admitsAll_ = false; }
    bool AdmitsAll() const { return admitsAll_; }

    /// Whether any device was ever admitted. False too when the database fails.
    bool HasAny();

    /// How many there are, at most some seconds ago. Blocks for the database only then.
    std::int64_t Count();

    /// Gives a device a session, whose hash is `session`; its services become stale until it names
    /// them again. Refused when it is banned, when its serial first came with another token, or
    /// when its server id is another device's. An unknown device is admitted if everybody is, else
    /// NotFound.
    StoreResult Register(const Identity& identity, const std::string& session, Device& device);
    /// The device that has the session with this hash, else NotFound.
    StoreResult FindSession(const std::string& session, Device& device);
    /// The device with these credentials, else Refused, also when it is banned.
    StoreResult Authenticate(const std::string& serial, const std::string& token,
                             const std::string& serverId, Device& device);
    /// Keeps what the device says of its network, as JSON. NotFound when it is no longer admitted.
    StoreResult SetNetwork(std::int64_t device, const std::string& network);

    // The steps below run inside a piece of work on the database.

    /// How the hub stands to a device: the first five of the list. `key` is set for a device that
    /// is admitted; within a transaction its row is locked then.
    static Standing Judge(Database& database, const Identity& identity, std::int64_t& key);
    /// Whether the server id is that of another device than `key`, 0 = of any.
    static bool HasAnother(Database& database, const std::string& serverId, std::int64_t key);
    /// Admits a device; `token` is the hash. Full when there are too many.
    StoreResult Add(Database& database, const Identity& identity, const std::string& token,
                    std::int64_t& key);

private:
    /// Whether there may be one more device, which is counted at once. The real number is looked up
    /// every 10 s only; several control servers may exceed the limit by what they add meanwhile.
    bool TakeRoom(Database& database);

    /// Whether the number is too old. With the lock, as the next one.
    bool IsCountOld() const;
    /// The number, looked up if the last one is too old.
    std::int64_t Counted(Database& database);

    StoreAccess& access_;
    bool admitsAll_ = true;
    std::mutex mutex_; ///< for what follows
    std::int64_t count_ = 0;
    std::chrono::steady_clock::time_point counted_; ///< the epoch = never
};

} // namespace ZARO::RelayHub
