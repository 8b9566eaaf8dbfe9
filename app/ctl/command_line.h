/// The program's command line.
#pragma once

#include <functional>
#include <string>

namespace ZARO::Relay::ctl {

struct CommandLine {
    std::string root;            ///< empty for the appliance's own
    std::function<int()> action; ///< the command; gives the exit code
};

/// Reads the command line. -1 when there is a command to run. Else everything is printed, and the
/// result is the exit code: 0 for help and version, 2 for a fault.
int ReadCommandLine(int argc, char** argv, CommandLine& line);

} // namespace ZARO::Relay::ctl
