/// Finds out whether the daemon of this root runs.
#pragma once

#include <sys/types.h>

#include <string>

namespace ZARO::Relay::app {

/// The daemon's program, after which its process and its PID file are named.
constexpr const char* kDaemonName = "zarorelayd";

/// The process id in the daemon's PID file; 0 when there is none.
pid_t ReadPidFile();

/// The path of the program that a process (a number, or "self") runs, also when the program was
/// replaced since; empty when this user can't see it.
std::string ProgramPathOf(const std::string& process);

/// The name alone.
std::string ProgramOf(const std::string& process);

/// Whether a process runs the program of that name. For another user's process only the short name
/// can be read.
bool RunsProgram(const std::string& process, const std::string& program);

/// The file that a running daemon holds locked.
std::string InstanceLockFile();

/// Whether a process is a daemon of this root. The lock file that it has open decides. If there is
/// none, or this user can't see it, any daemon counts whose command line names no other root.
bool IsDaemonOfThisRoot(pid_t process);

} // namespace ZARO::Relay::app
