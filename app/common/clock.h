/// The daemon's and the command line's sense of time.
#pragma once

#include <chrono>

namespace ZARO::Relay::app {

/// Time that no clock change moves. The daemon reads it once per pass of its loop.
using Clock = std::chrono::steady_clock;
using Time = Clock::time_point;
using std::chrono::milliseconds;
using std::chrono::seconds;

} // namespace ZARO::Relay::app
