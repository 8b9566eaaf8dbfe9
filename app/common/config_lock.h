/// The lock by which those who change the configuration file take turns.
#pragma once

#include <string>

#include "base/own_lock.h"
#include "base/replace_file.h"
#include "base/paths.h"

namespace ZARO::Relay::app {

/// Held from the look at the file until it is replaced, so that of two programs that change it at a
/// time neither loses its change. Readers need no lock: the file is replaced whole.
class ConfigLock : public OwnLock {
public:
    ConfigLock() : OwnLock(Path()) {}

    /// The file that is locked, for messages.
    static std::string Path() { return FolderOf(paths::ConfigFile()) + ".zarorelayd.conf.lock"; }
};

} // namespace ZARO::Relay::app
