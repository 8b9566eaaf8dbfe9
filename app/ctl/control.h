/// The daemon as a process: found, started, stopped, asked.
#pragma once

#include <json/value.h>

#include <string>

namespace ZARO::Relay::ctl {

// The functions that give an int give the program's exit code, with everything told.

enum class Presence {
    None,
    Running,
    NotPermitted, ///< it runs, but this user must not signal it
    Foreign,      ///< the PID file is stale: its number is another program's, or another root's
};

/// Looks at the PID file and at the process that it names. The library's own calls would signal
/// whatever process has that number, so this is asked before each of them.
Presence FindDaemon();

int Start();
int Stop();
int Restart();
int Reload();
int Debug();

/// The running daemon's dump; asks again for 2 s while it is busy. DebugStatus's codes, none told.
int FetchDump(Json::Value& dump);

/// The on/off switch; a running daemon is told.
int Switch(bool on);

/// After a change of the settings: makes a running daemon take it in and says `done`.
int Apply(const std::string& done);

/// Says that the daemon is not running, or is not this user's, and gives the code.
int TellAbsent(Presence presence, int code);

} // namespace ZARO::Relay::ctl
