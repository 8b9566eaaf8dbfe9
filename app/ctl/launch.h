/// A daemon that other commands start, and how they wait for it.
#pragma once

#include <zarorelayd/config.h>

#include <functional>
#include <string>

#include "app/common/clock.h"
#include "app/ctl/interrupts.h"
#include "app/ctl/status.h"

namespace ZARO::Relay::ctl {

/// How long a command waits for what it has changed to work.
constexpr app::seconds kPatience{30};

/// Starts the daemon, as Start does, and waits until it is in the background. Its exit code; -1
/// when it could not be started or was killed. What it prints is dropped.
int LaunchDaemon();

/// The running daemon has taken in a change of its configuration: two dumps, one after the other,
/// show what `isTaken` looks for, so the status file was written after it. `isTaken` gets the
/// settings in a dump. False when that takes longer than until `deadline`, or on an interrupt.
bool AwaitReload(const std::function<bool(const Json::Value&)>& isTaken, app::Time deadline,
                 Interrupts& interrupts);

/// Reads the status of the service, or of the daemon without one, until `isGood`. Gives the last
/// one, after `deadline` or an interrupt too.
Status AwaitStatus(const std::string& service, const std::function<bool(const Status&)>& isGood,
                   app::Time deadline, Interrupts& interrupts);

} // namespace ZARO::Relay::ctl
