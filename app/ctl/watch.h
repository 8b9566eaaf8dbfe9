/// The status, shown anew whenever it changes.
#pragma once

#include "app/ctl/status.h"

namespace ZARO::Relay::ctl {

/// Redraws in place on a terminal, about once a second and at every change of the status file.
/// Elsewhere, and for JSON (a line each), it prints what has changed. Until SIGINT, SIGTERM, SIGHUP
/// or SIGQUIT; then the terminal is as it was. Gives the last exit code.
int Watch(const StatusOptions& options);

} // namespace ZARO::Relay::ctl
