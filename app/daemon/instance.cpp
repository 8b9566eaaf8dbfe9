#include "app/daemon/instance.h"

#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <zarorelayd/daemon.h>

#include "app/common/clock.h"
#include "app/common/pid_file.h"
#include "base/log.h"
#include "base/own_lock.h"

namespace ZARO::Relay::app {

namespace {

/// A command line that looks for a daemon holds the lock for an instant.
constexpr milliseconds kPatience{100};

} // namespace

bool BecomeTheOnlyOne(OwnLock& lock) {
    const bool locked = lock.Take(kPatience);
    const int error = errno;
    const pid_t named = ReadPidFile();
    if (!locked && error == EWOULDBLOCK) {
        RELAY_LOG(log::Error, "Daemon already running on PID file %d", named);
        return false;
    }
    if (!locked) { // no reason not to run
        RELAY_LOG(log::Warning, "no lock on [%s], %s", InstanceLockFile().c_str(), strerror(error));
    }
    // A daemon that could not take the lock, or was started before there was one, runs without it.
    if (IsDaemonOfThisRoot(named)) {
        RELAY_LOG(log::Error, "Daemon already running on PID file %d", named);
        return false;
    }
    if (unlink(Daemon::GetPidFile()) == 0) {
        RELAY_LOG(log::Warning, "removed the stale PID file [%s]", Daemon::GetPidFile());
    }
    return true;
}

} // namespace ZARO::Relay::app
