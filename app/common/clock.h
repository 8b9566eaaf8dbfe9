/// How the programs measure time.
#pragma once

#include <chrono>

namespace ZARO::Relay::app {

/// Setting the system's clock does not change it. The daemon reads it once per pass of its loop.
using Clock = std::chrono::steady_clock;
using Time = Clock::time_point;
using std::chrono::milliseconds;
using std::chrono::seconds;

} // namespace ZARO::Relay::app
