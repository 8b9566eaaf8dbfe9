/// How the program ends.
#pragma once

#include <string>

namespace ZARO::RelayHub::ctl {

constexpr int kSuccess = 0;
constexpr int kNo = 1;      ///< there is no such device or relay
constexpr int kNotDone = 2; ///< also a wrong command line
constexpr int kBusy = 11;
constexpr int kUnusable = 255; ///< the reply is no good, or none came

/// Prints on standard error, on one line, what went wrong and what helps, if that is not said
/// already. Gives `code` back.
int Fail(int code, const std::string& what, const std::string& remedy = "");

} // namespace ZARO::RelayHub::ctl
