/// Which tunnels each device was told last, for the time when the database is away.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <vector>

#include "hub/store_services.h"

namespace ZARO::RelayHub {

/// One list per device. Any thread may call any method; none blocks for longer than a copy takes.
class ToldLists {
public:
    using List = std::vector<TunnelRecord>;

    /// The device is told this list now, with its revision.
    void Note(std::int64_t device, int revision, const List& tunnels);
    /// The device's last list, if it had this revision.
    std::optional<List> Find(std::int64_t device, int revision) const;

private:
    struct Told {
        int revision = 0;
        List tunnels;
    };

    mutable std::mutex mutex_;
    std::unordered_map<std::int64_t, Told> told_; ///< by device
};

} // namespace ZARO::RelayHub
