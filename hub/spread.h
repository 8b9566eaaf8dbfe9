/// How slowly a fleet of devices comes back.
#pragma once

#include <algorithm>
#include <cstdint>

namespace ZARO::RelayHub {

/// Over how many seconds the devices should come back after a common loss, so that a hub with two
/// processors keeps up with their log-ins. 0 = not to be named: they come back within 2 s by
/// themselves. Pure.
inline int SpreadFor(std::int64_t devices) {
    constexpr std::int64_t kFewest = 500;
    constexpr std::int64_t kPerSecond = 300; // a processor does 400 to 500 log-ins
    constexpr std::int64_t kLongest = 60;    // seconds; devices take no more
    const std::int64_t seconds = (devices + kPerSecond - 1) / kPerSecond;
    return devices < kFewest ? 0 : static_cast<int>(std::min(seconds, kLongest));
}

} // namespace ZARO::RelayHub
