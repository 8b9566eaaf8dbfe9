/// Locks that only the daemon's own user can hold.
#pragma once

#include <string>

#include "app/common/clock.h"
#include "platform/unique_fd.h"

namespace ZARO::Relay::app {

/// An advisory lock on a file that other users can't open. The file is never removed, since a lock
/// on a removed file excludes nobody. A forked child shares the lock until it executes a program.
/// The lock ends with this object, or with the last process that shares it.
class OwnLock {
public:
    explicit OwnLock(std::string path);

    /// Makes the file if it is missing, and waits up to `patience` for another holder. False, with
    /// errno: EWOULDBLOCK when somebody still holds it, else why the file can't be locked.
    bool Take(milliseconds patience);

private:
    bool TryOnce();

    std::string path_;
    UniqueFd fd_;
};

} // namespace ZARO::Relay::app
