// zarorelay-hubctl: the hub's command line for its operator and for scripts.
#include <locale.h>

#include <exception>
#include <iostream>

#include "base/standard_descriptors.h"
#include "hub/ctl/command_line.h"
#include "hub/ctl/report.h"

namespace {

namespace ctl = ZARO::RelayHub::ctl;

int Run(int argc, char** argv) {
    std::function<int()> action;
    int code = ctl::ReadCommandLine(argc, argv, action);
    if (code >= 0) {
        return code;
    }
    code = action();
    if (!std::cout.flush()) {
        return ctl::Fail(code != ctl::kSuccess ? code : ctl::kNotDone,
                         "the output can't be written", "see whether the disk is full");
    }
    return code;
}

} // namespace

int main(int argc, char** argv) {
    ZARO::FillStandardDescriptors();
    (void)setlocale(LC_CTYPE, ""); // decides which foreign texts a terminal can show
    try {
        return Run(argc, argv);
    } catch (const std::exception& fault) {
        return ctl::Fail(ctl::kUnusable, fault.what(), "see whether memory and disk have room");
    }
}
