/// The program's command line.
#pragma once

#include <functional>
#include <string>

namespace ZARO::Relay::ctl {

struct CommandLine {
    std::string root;            ///< empty: the appliance's own
    std::function<int()> action; ///< what was asked for; gives the exit code
};

/// Reads the command line. -1 to go on; else the exit code, with everything printed: 0 for help and
/// version, 2, with one line on standard error, for a fault.
int ReadCommandLine(int argc, char** argv, CommandLine& line);

} // namespace ZARO::Relay::ctl
