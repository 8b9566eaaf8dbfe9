/// The PID file a killed or powered-off predecessor left.
#pragma once

namespace ZARO::Relay::app {

/// Removes a PID file that is empty or names a process which is no instance of this program: after
/// a power cut the daemon must start again by itself.
void RemoveStalePidFile();

} // namespace ZARO::Relay::app
