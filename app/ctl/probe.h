/// Whether servers can be reached.
#pragma once

#include <string>
#include <vector>

#include "app/common/clock.h"

namespace ZARO::Relay::ctl {

/// How far a connection came.
enum class Stage { Nothing, Name, Connected, Secured };

/// One server to be tried, as the daemon would: its certificate is not verified, its name is.
struct ServerProbe {
    std::string url;     ///< http or https, the page plays no part; an empty one is left out
    bool direct = false; ///< past any proxy, as the SSH client goes
    Stage reached = Stage::Nothing;
    std::string address; ///< that it connected to
    std::string fault;   ///< of the stage after `reached`; empty when all went well
};

/// Connects to all of them at once and closes again without sending a request, `patience` at most.
void RunProbes(std::vector<ServerProbe>& probes, app::milliseconds patience);

} // namespace ZARO::Relay::ctl
