/// The program's command line.
#pragma once

#include <functional>

namespace ZARO::RelayHub::ctl {

/// Reads the command line. -1 with the `action` that is to run and gives the exit code. Else
/// everything is printed, and the result is the exit code: 0 for help and version, 2 for a fault.
int ReadCommandLine(int argc, char** argv, std::function<int()>& action);

} // namespace ZARO::RelayHub::ctl
