/// Locks that only one user can hold.
#pragma once

#include <chrono>
#include <string>

#include "base/unique_fd.h"

namespace ZARO {

/// An advisory lock on a file that other users can't open. The file is never removed, since a lock
/// on a removed file excludes nobody. A forked child shares the lock until it executes a program.
/// The lock ends with this object, or with the last process that shares it.
class OwnLock {
public:
    explicit OwnLock(std::string path);

    /// Makes the file if need be and waits up to `patience` for another holder. False, with errno,
    /// when there is still one (EWOULDBLOCK), or when the file can't be made, opened or locked.
    bool Take(std::chrono::milliseconds patience);

private:
    bool Open();
    bool TryOnce();

    std::string path_;
    UniqueFd fd_;
};

} // namespace ZARO
