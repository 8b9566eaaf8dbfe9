#include "app/config_lock.h"

#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <string>

#include "platform/new_file.h"
#include "platform/paths.h"

namespace ZARO::Relay::app {

namespace {

constexpr int kPauseMs = 5;

/// Other users must not be able to hold the lock, so they must not be able to open the file.
bool LockForOwnerOnly(FileLock& lock) {
    const mode_t before = umask(077);
    const bool locked = lock.Lock(LOCK_EX);
    umask(before);
    return locked;
}

} // namespace

/// The file exists beside the configuration and is never removed: a lock on a removed file excludes
/// nobody.
std::string ConfigLock::Path() {
    return FolderOf(paths::ConfigFile()) + ".zarorelayd.conf.lock";
}

ConfigLock::ConfigLock() : lock_(Path().c_str()) {
}

bool ConfigLock::Take(milliseconds patience) {
    const Time deadline = Clock::now() + patience;
    bool locked = LockForOwnerOnly(lock_);
    while (!locked && Clock::now() < deadline) {
        (void)poll(nullptr, 0, kPauseMs);
        locked = LockForOwnerOnly(lock_);
    }
    return locked;
}

} // namespace ZARO::Relay::app
