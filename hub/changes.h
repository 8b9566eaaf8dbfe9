/// What one process of the hub tells the others.
#pragma once

#include <cstdint>
#include <vector>

#include "hub/store_services.h"

namespace ZARO::RelayHub {

/// What somebody has changed; who listens reads the database again.
struct Changes {
    std::vector<std::int64_t> devices; ///< whose tunnel lists have a new revision
    std::vector<TunnelKey> tunnels;    ///< added, changed or gone
};

} // namespace ZARO::RelayHub
