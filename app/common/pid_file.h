/// What tells a running daemon of this root from what a killed one left.
#pragma once

#include <sys/types.h>

#include <string>

namespace ZARO::Relay::app {

/// The base name of the program that a process (a number, or "self") runs, also when the program
/// was replaced since; empty when it can't be told.
std::string ProgramOf(const std::string& process);

/// Whether a process runs the program of that name. Another user's can't be read, but its short
/// name can.
bool RunsProgram(const std::string& process, const std::string& program);

/// The file that a running daemon holds locked.
std::string InstanceLockFile();

/// Whether a process is a daemon of this root: by the lock file that it has open; or, for one that
/// has none, or may not be looked at, unless its command line names another root.
bool IsDaemonOfThisRoot(pid_t process);

} // namespace ZARO::Relay::app
