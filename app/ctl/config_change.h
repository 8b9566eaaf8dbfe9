/// The daemon's configuration file, as commands read and change it.
#pragma once

#include <json/value.h>

#include "app/common/config_check.h"
#include "app/common/config_lock.h"

namespace ZARO::Relay::ctl {

/// Reads the device's configuration file; `document` stays null when there is none. 0, or the exit
/// code after printing the reason.
int ReadConfig(Json::Value& document);

/// One change of the file, which is locked while this object lives.
class ConfigChange {
public:
    /// Waits up to 5 s for the lock, then reads the file in any case.
    ConfigChange();

    /// The file as it was read.
    const app::CheckedConfig& Found() const { return found_; }

    /// What ReadConfig would give for the file that was read.
    int CheckReadable() const;

    /// 0 when the file may be changed. Else the exit code, after printing the reason: this user may
    /// not write there, another program holds the lock, or the file is broken.
    int CheckChangeable() const;

    /// Replaces the content. 0, or the exit code after printing the reason.
    int Write(const Json::Value& config) const;

    /// Reads the file again, to see whether a change is in it.
    Json::Value ReadBack() const;

private:
    std::string path_;
    app::ConfigLock lock_;
    int folderError_ = 0; ///< errno when the file can't be replaced in its folder
    bool locked_ = false;
    app::CheckedConfig found_;
};

/// Prints that the file could not be written and gives the exit code.
int TellNotWritten();

} // namespace ZARO::Relay::ctl
