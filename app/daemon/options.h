/// The daemon's command line.
#pragma once

#include <string>

namespace ZARO::Relay::app {

struct Options {
    std::string root; ///< empty: the appliance's own
    bool foreground = false;
    bool check = false;
    std::string checkFile; ///< empty: the device's own configuration
};

/// Reads the command line. -1: go on. Otherwise the exit code, and all is printed: 0 for help and
/// version, 2 for a fault, with one line on standard error.
int ReadOptions(int argc, char** argv, Options& options);

} // namespace ZARO::Relay::app
