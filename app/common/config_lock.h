/// The lock that programs hold while they change the configuration file.
#pragma once

#include <string>

#include "base/own_lock.h"
#include "base/paths.h"
#include "base/replace_file.h"

namespace ZARO::Relay::app {

/// Held from reading the file until it is replaced, so that two programs that change it at the same
/// time don't undo each other's change. Readers need no lock: the file is replaced whole.
class ConfigLock : public OwnLock {
public:
    ConfigLock() : OwnLock(Path()) {}

    /// The file that is locked, for messages.
    static std::string Path() { return FolderOf(paths::ConfigFile()) + ".zarorelayd.conf.lock"; }
};

} // namespace ZARO::Relay::app
