/// Who may join: devices that wait for the operator, invitations and bans.
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "hub/changes.h"
#include "hub/log.h"
#include "hub/store_access.h"
#include "hub/store_devices.h"

namespace ZARO::RelayHub {

constexpr int kMaxPending = 1000; ///< on all networks
constexpr int kMaxPendingOfNetwork = 20;

/// A device that asks to join.
struct Applicant {
    Identity identity;
    std::string address; ///< that it asks from
    std::int64_t network = 0;
};

/// A device that waits for the operator. Times are the database's, in seconds.
struct PendingDevice {
    std::string serial, serverId, mac;
    std::string address; ///< that it asked from last
    std::int64_t firstAsked = 0;
    std::int64_t lastAsked = 0; ///< half a minute late at most
};

struct NewInvitation {
    std::string hash; ///< SHA-256 of the code, without dashes
    int uses = 1;
    std::int64_t seconds = std::int64_t{7} * 24 * 60 * 60; ///< that it is good for
};

/// What became of the operator's "admit".
enum class AdmitResult {
    Admitted,
    Known,     ///< it was admitted before and not banned; nothing changed
    Unbanned,  ///< it was only banned; now it is unknown
    Ambiguous, ///< devices with different tokens wait under this serial; nothing changed
};

/// Any thread may call any method. They block for the database only and don't throw.
class AdmissionStore {
public:
    AdmissionStore(StoreAccess& access, DeviceStore& devices)
        : access_(access), devices_(devices) {}

    // For devices.

    /// How the hub stands to a device, as far as no code is needed: Admitted, Unknown, OtherToken,
    /// OtherId or Banned. Changes nothing.
    StoreResult Look(const Identity& identity, Standing& standing);
    /// Admits an unknown device that has a good code, which is used up by that, and any device
    /// while everybody is admitted. Without a code the device becomes pending, or stays so.
    /// `codeHash` is "" for no code. Done with whatever it came to; Full when there are too many
    /// devices.
    StoreResult Join(const Applicant& applicant, const std::string& codeHash, Standing& standing);
    /// After how many seconds a pending device is to ask again, 5 to 60, so that all together ask
    /// about 20 times a second at most. Blocks for the database every few seconds only.
    int RetryAfter();

    // For the operator.

    /// Keeps a new invitation. Those that expired a month ago are cleared away.
    StoreResult Invite(const NewInvitation& invitation);
    /// The devices that wait, the one that came first at the front.
    StoreResult Pending(std::vector<PendingDevice>& devices);
    /// Admits the pending device with this serial and lifts a ban. `from` chooses the one that
    /// asked from that address; "" = there is only one. NotFound when none waits, Taken when its
    /// server id is another device's, Full when there are too many devices.
    StoreResult Admit(const std::string& serial, const std::string& from, AdmitResult& result);
    /// Bans whoever has this serial, known or not: its sessions end, and its services lose their
    /// tunnels. `touched` is to be told to every part of the hub, as with Forget().
    StoreResult Ban(const std::string& serial, Changes& touched);
    /// Removes all that is known of the serial, its ban too. NotFound when that is nothing.
    StoreResult Forget(const std::string& serial, Changes& touched);

private:
    // The steps below run inside a piece of work on the database.

    /// Uses the code once and returns Admitted, or says what is wrong with it.
    static Standing UseCode(Database& database, const std::string& codeHash);
    /// The device waits from now on, unless too many do.
    Standing Wait(Database& database, const Applicant& applicant);
    /// Takes everything from a device that may not have it any longer.
    static void Disconnect(Database& database, std::int64_t device, Changes& touched);

    StoreAccess& access_;
    DeviceStore& devices_;
    LogQuota newcomers_{Level::Info};

    std::mutex mutex_; ///< for what follows
    int retryAfter_ = 5;
    std::chrono::steady_clock::time_point counted_; ///< the epoch = never
};

} // namespace ZARO::RelayHub
