/// The lock by which those who change the configuration file take turns.
#pragma once

#include <string>

#include <zarorelayd/file_lock.h>

#include "app/backoff.h"

namespace ZARO::Relay::app {

/// Held from the look at the file until it is replaced, so that of two programs that change it at a
/// time neither loses its change. Readers need no lock: the file is replaced whole.
class ConfigLock {
public:
    ConfigLock();

    /// Waits for another holder, `patience` at most. False when it is still held, or can't be made.
    bool Take(milliseconds patience);

    /// The file that is locked, for messages.
    static std::string Path();

private:
    FileLock lock_;
};

} // namespace ZARO::Relay::app
