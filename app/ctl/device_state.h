/// All that joining a hub changes on this device, as it was before.
#pragma once

#include <json/value.h>

#include <string>

#include "app/ctl/kept_file.h"

namespace ZARO::Relay::ctl {

/// Configuration, switch, SSH port, and whether the daemon ran. To be used while JoinRecord is
/// locked.
class DeviceState {
public:
    /// Takes the device as it is. 0, or the exit code after printing the reason.
    int Take();

    /// Puts the files back: byte by byte where nothing but the parts of a join has changed since,
    /// else only those parts, so that other changes stay. Waits up to 5 s for each lock. 0, or the
    /// exit code after printing the reason.
    int PutBackFiles() const;

    /// The same, and the daemon runs again, or stops, as before. Waits up to 10 s for its end.
    int PutBack() const;

    /// The configuration; an empty object when there was none.
    Json::Value Config() const;
    bool DaemonRan() const { return ran_; }

    Json::Value Write() const;
    /// False when the value is no state.
    bool Read(const Json::Value& value);

private:
    int PutBackConfig() const;
    int PutBackSwitch() const;
    int PutBackSshPort() const;

    KeptFile config_;
    KeptFile info_;
    KeptFile ssh_;
    bool enabled_ = false;
    bool ran_ = false;
};

/// 0 when this user may change all of it. Else the exit code, after printing the reason.
int CheckMayChange();

/// The SSH client's configuration; links are followed.
std::string SshConfigFile();

/// The lock by which the writers of a file take turns.
std::string LockOf(const std::string& file);

/// Writes the port into the SSH client's configuration. False, with errno, on failure.
bool WriteSshPort(int port);

} // namespace ZARO::Relay::ctl
