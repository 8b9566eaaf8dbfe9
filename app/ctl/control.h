/// Finds, starts, stops and queries the daemon.
#pragma once

#include <json/value.h>

#include <string>

namespace ZARO::Relay::ctl {

// Functions that return an int print what there is to say and give the program's exit code.

enum class Presence {
    None,
    Running,
    NotPermitted, ///< it runs, but this user must not signal it
    Foreign,      ///< the PID file is stale: its number is another program's, or another root's
};

/// Looks at the PID file and at the process that it names. Ask this before each of the library's
/// calls, which would signal whatever process has that number.
Presence FindDaemon();

/// The daemon's program: the one in this program's folder; if there is none, the device's own.
std::string DaemonProgram();

int Start();
int Stop();
int Restart();
int Reload();
int Debug();

/// Gets the running daemon's dump; retries for 2 s while the daemon is busy. Prints nothing and
/// gives DebugStatus's codes.
int FetchDump(Json::Value& dump);

/// Sets the on/off switch and has a running daemon reload.
int Switch(bool on);

/// After a change of the settings: has a running daemon reload, and prints `done`.
int Apply(const std::string& done);

/// Prints that the daemon is not running, or belongs to another user, and gives the exit code.
int TellAbsent(Presence presence, int code);

} // namespace ZARO::Relay::ctl
