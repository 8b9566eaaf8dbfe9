/// Changes of the daemon's configuration file.
#pragma once

#include <json/value.h>

#include <string>

#include "app/common/config_lock.h"

namespace ZARO::Relay::ctl {

/// The content of the device's configuration file, by app::ReadConfigFile; it may be missing.
bool LookAtConfig(Json::Value& config, std::string& fault);

/// Held while the file is changed, so that of two such programs at a time neither loses its change.
class ConfigChange {
public:
    ConfigChange();

    /// Waits for other holders, 5 s at most, and checks the file. 0, or the exit code with the
    /// reason told: no right to write, still held, or a file that is broken (it stays as it is).
    int Begin();

    /// Between Begin and the end of this object: the file's content, and its replacement. Write
    /// gives 0, or the exit code with the reason told.
    Json::Value Read() const;
    int Write(const Json::Value& config) const;

private:
    std::string path_;
    app::ConfigLock lock_;
};

/// Says that the file could not be written and gives the code.
int TellNotWritten();

} // namespace ZARO::Relay::ctl
