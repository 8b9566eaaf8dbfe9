/// The daemon's configuration file, as commands read and change it.
#pragma once

#include <json/value.h>

#include "app/common/config_check.h"
#include "app/common/config_lock.h"

namespace ZARO::Relay::ctl {

/// Reads the device's configuration file; `document` stays null when there is none. 0, or the exit
/// code with the reason told.
int ReadConfig(Json::Value& document);

/// One change of the file. Locked while this object lives, so that of two programs that change the
/// file at the same time neither loses its change.
class ConfigChange {
public:
    /// Takes the lock, for which it waits 5 s at most, and reads the file once.
    ConfigChange();

    /// What was read. A broken file stays as it is.
    const app::CheckedConfig& Found() const { return found_; }

    /// What ReadConfig would give for the file that was read.
    int CheckReadable() const;

    /// 0 when the file may be changed, or the exit code with the reason told: no right to write,
    /// locked by others, or a broken file.
    int CheckChangeable() const;

    /// Replaces the content. 0, or the exit code with the reason told.
    int Write(const Json::Value& config) const;

    /// Reads the file again, after the library changed it.
    Json::Value ReadBack() const;

private:
    std::string path_;
    app::ConfigLock lock_;
    int folderError_ = 0; ///< errno when the file can't be replaced in its folder
    bool locked_ = false;
    app::CheckedConfig found_;
};

/// Says that the file could not be written and gives the code.
int TellNotWritten();

} // namespace ZARO::Relay::ctl
