/// The command line of zarorelay-hub.
#pragma once

#include <optional>
#include <string>

#include "hub/hub.h"

namespace ZARO::RelayHub {

struct CommandLine {
    HubOptions hub;
    int logLevel = 6;
    std::string backup; ///< the file to copy the database to, instead of running; empty = run
};

/// Takes the options in and checks that they fit together. Roles without a listener are left out of
/// `line.hub.roles`, and listeners without a role are off. Hides passwords from process lists.
/// Gives the exit code when there is nothing to run: after --help, --version or a fault, each of
/// which is printed. Throws bad_alloc, and nothing else. For the main thread, before there are
/// others.
std::optional<int> ParseCommandLine(int argc, char** argv, CommandLine& line);

} // namespace ZARO::RelayHub
