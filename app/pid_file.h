/// The PID file a killed or powered-off predecessor left.
#pragma once

#include <string>

namespace ZARO::Relay::app {

/// The base name of the program that a process (a number, or "self") runs, also when the program
/// was replaced since; empty when it can't be told.
std::string ProgramOf(const std::string& process);

/// Whether a process runs the program of that name. Another user's can't be read, but its short
/// name can.
bool RunsProgram(const std::string& process, const std::string& program);

/// Removes a PID file that is empty or names a process which is no instance of this program, or
/// one of another root: after a power cut the daemon must start again by itself.
void RemoveStalePidFile();

} // namespace ZARO::Relay::app
