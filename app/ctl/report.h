/// How the program ends.
#pragma once

#include <string>

namespace ZARO::Relay::ctl {

// The codes of the library's status functions. Every command ends with one of them, except that
// start gives the daemon's own.
constexpr int kSuccess = 0;
constexpr int kNotRunning = 1; ///< for check and id: no
constexpr int kNoAnswer = 2;   ///< also: not done, or a wrong command line
constexpr int kLocked = 11;
constexpr int kUnusable = 255;

/// Prints on standard error, on one line, what went wrong and what helps. Gives `code` back.
int Fail(int code, const std::string& what, const std::string& remedy);

/// Prints a line on standard error about something that does not stop the command.
void Warn(const std::string& what);

/// The remedy for root; "run this as root" for other users.
std::string RootOr(const std::string& remedy);

} // namespace ZARO::Relay::ctl
