/// Whether servers can be reached.
#pragma once

#include <string>
#include <vector>

#include "app/common/clock.h"

namespace ZARO::Relay::ctl {

/// How far a connection got.
enum class Stage { Nothing, Name, Connected, Secured };

/// One server to connect to. As in the daemon, its certificate is not verified, but its name is.
struct ServerProbe {
    std::string url;     ///< http or https; the page is not requested; empty for no server
    bool direct = false; ///< without a proxy, as the SSH client connects
    Stage reached = Stage::Nothing;
    std::string address; ///< to which it connected
    std::string fault;   ///< in the stage after `reached`; empty for success
};

/// Connects to all of them at the same time and sends no request. Takes `patience` at most.
void RunProbes(std::vector<ServerProbe>& probes, app::milliseconds patience);

} // namespace ZARO::Relay::ctl
