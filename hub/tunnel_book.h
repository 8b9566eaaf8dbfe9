/// The tunnels of one relay in memory, so that a log-in needs no database.
#pragma once

#include <cstddef>
#include <cstdint>
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
    static constexpr std::uint64_t kNow = UINT64_MAX; ///< whatever the version is

    /// Whose tunnels these are; 0 = every tunnel's, as long as the relay is not known.
    void SetRelay(std::int64_t relay);

    /// The tunnel that this user may log in for, if it is in the book.
    std::optional<TunnelRecord> Find(const std::string& user) const;
    /// Adds a tunnel, or puts it in the place of the one with the same user. False, and nothing is
    /// done, when another relay carries it, or when it was removed after the book had that version,
    /// in which it was read.
    bool Put(TunnelRecord tunnel, std::uint64_t version = kNow);
    void Remove(const std::string& user);

    /// A number that grows with each tunnel that is put in or removed.
    std::uint64_t Version() const;
    /// From now on the book holds these tunnels, which were read when the book had that version,
    /// but for what was put in or removed since then. Returns the users of those that are gone or
    /// that have another port or password now: their sessions are to end.
    std::vector<std::string> Replace(std::vector<TunnelRecord> all, std::uint64_t version);
    std::size_t Size() const;

private:
    struct Entry {
        TunnelRecord tunnel;
        std::uint64_t version = 0; ///< of the book, when it was put in
    };

    mutable std::mutex mutex_; ///< guards the following
    std::int64_t relay_ = 0;
    std::uint64_t version_ = 0;
    std::unordered_map<std::string, Entry> entries_; ///< by user
    /// The version after each removal since the last Replace(), by user.
    std::unordered_map<std::string, std::uint64_t> removed_;
};

} // namespace ZARO::RelayHub
