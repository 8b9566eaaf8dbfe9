/// Joining a hub and leaving it.
#pragma once

#include <string>

namespace ZARO::Relay::ctl {

struct JoinOptions {
    std::string url;
    std::string code; ///< an invitation as it was typed; "-": on standard input; empty: none
    int wait = 600;   ///< seconds to wait until the operator admits a device without a code
};

// Each prints what there is to say and gives the program's exit code. After a failure, and after
// Ctrl-C, the device is as it was.

/// Asks the hub to let this device in, points the device at it, starts or reloads the daemon and
/// waits until that is connected, 30 s at most.
int Join(const JoinOptions& options);

/// Puts back what the device was before it joined. Without a former server the relay is switched
/// off and the daemon stopped.
int Leave();

} // namespace ZARO::Relay::ctl
