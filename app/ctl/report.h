/// How the program ends.
#pragma once

#include <string>

namespace ZARO::Relay::ctl {

// The status functions' codes; every command ends with one of them, or with the daemon's own.
constexpr int kSuccess = 0;
constexpr int kNotRunning = 1; ///< also: does not hold (check, id)
constexpr int kNoAnswer = 2;   ///< also: not done, wrong command line
constexpr int kLocked = 11;
constexpr int kUnusable = 255;

/// One line on standard error: what went wrong and what helps. Gives `code` back.
int Fail(int code, const std::string& what, const std::string& remedy);

/// "run this as root" for everybody else, to whom that helps first.
std::string RootOr(const std::string& remedy);

} // namespace ZARO::Relay::ctl
