/// Shows the status again whenever it changes.
#pragma once

#include "app/ctl/status.h"

namespace ZARO::Relay::ctl {

/// On a terminal, redraws in place about once a second and whenever the status file changes.
/// Elsewhere, and for JSON (one line per status), prints each status that differs from the last.
/// Ends on SIGINT, SIGTERM, SIGHUP or SIGQUIT and restores the terminal. Gives the last exit code.
int Watch(const StatusOptions& options);

} // namespace ZARO::Relay::ctl
