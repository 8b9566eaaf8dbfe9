/// The sessions that were used lately, so that a request needs no look-up in the database.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "hub/store_devices.h"

namespace ZARO::RelayHub {

/// Any thread may call any method; none blocks. Sessions are named by their hashes.
class SessionCache {
public:
    /// It forgets some of them when there are more.
    static constexpr std::size_t kMost = std::size_t{2} * kMaxDevices;

    std::optional<Device> Find(const std::string& session) const;
    /// To be called before a look-up in the database, for Add().
    unsigned State() const;
    /// The database said that this is the device's session. Does nothing when a device has
    /// registered since State(), as this may have ended the session.
    void Add(const std::string& session, const Device& device, unsigned state);
    /// The device registered and got this session. Its others may have ended.
    void Renew(const std::string& session, const Device& device);
    /// The device is no longer admitted, so its sessions have ended.
    void Forget(std::int64_t device);

private:
    void Put(const std::string& session, const Device& device);
    void Drop(std::int64_t device);

    mutable std::mutex mutex_;
    std::unordered_map<std::string, Device> devices_;                     ///< by session
    std::unordered_map<std::int64_t, std::vector<std::string>> sessions_; ///< by device
    unsigned registrations_ = 0;
};

} // namespace ZARO::RelayHub
