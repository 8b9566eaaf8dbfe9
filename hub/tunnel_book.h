/// The tunnels of one relay in memory, so that a log-in needs no database.
#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "hub/store_services.h"

namespace ZARO::RelayHub {

/// Any thread may call any method; none blocks for longer than a copy takes.
class TunnelBook {
public:
    /// The tunnel that this user may log in for, if it is in the book.
    std::optional<TunnelRecord> Find(const std::string& user) const;
    /// Adds a tunnel, or puts it in the place of the one with the same user.
    void Put(TunnelRecord tunnel);
    void Remove(const std::string& user);
    /// From now on the book holds these tunnels. Returns the users of those that are gone or that
    /// have another port or password now: their sessions are to end.
    std::vector<std::string> Replace(std::vector<TunnelRecord> all);
    std::size_t Size() const;

private:
    mutable std::mutex mutex_;
    std::unordered_map<std::string, TunnelRecord> tunnels_; ///< by user
};

} // namespace ZARO::RelayHub
