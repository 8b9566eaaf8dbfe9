// zarorelayctl: the relay daemon's command line for people and scripts.
#include <locale.h>

#include <exception>
#include <iostream>

#include <zarorelayd/daemon.h>

#include "app/ctl/command_line.h"
#include "app/ctl/report.h"
#include "base/paths.h"

namespace {

using ZARO::Relay::Daemon;
namespace ctl = ZARO::Relay::ctl;
namespace paths = ZARO::paths;

int Run(int argc, char** argv) {
    ctl::CommandLine line;
    int code = ctl::ReadCommandLine(argc, argv, line);
    if (code >= 0) {
        return code;
    }
    if (!line.root.empty() && !paths::SetRoot(line.root)) {
        return ctl::Fail(ctl::kNoAnswer, "--root " + line.root + ": no such folder",
                         "expected an existing folder");
    }
    Daemon::_logLevel = -1; // commands report faults in their own words
    Daemon::LibInit();
    code = line.action();
    if (!std::cout.flush()) {
        return ctl::Fail(code != ctl::kSuccess ? code : ctl::kNoAnswer,
                         "the output can't be written", "see whether the disk is full");
    }
    return code;
}

} // namespace

int main(int argc, char** argv) {
    (void)setlocale(LC_CTYPE, ""); // decides which foreign texts a terminal can show
    try {
        return Run(argc, argv);
    } catch (const std::exception& fault) {
        return ctl::Fail(ctl::kUnusable, fault.what(), "see whether memory and disk have room");
    }
}
