/// One daemon per root.
#pragma once

#include "base/own_lock.h"

namespace ZARO::Relay::app {

/// Takes the lock on InstanceLockFile() for a daemon that starts, and removes the PID file that a
/// killed predecessor left: after a power cut the daemon must start by itself. False, with the
/// reason logged, when a daemon of this root runs or is being started.
bool BecomeTheOnlyOne(OwnLock& lock);

} // namespace ZARO::Relay::app
