#include "hub/ctl/report.h"

#include <iostream>

#include "base/terminal.h"

namespace ZARO::RelayHub::ctl {

namespace {

constexpr std::size_t kLongestLine = 400; // columns

} // namespace

int Fail(int code, const std::string& what, const std::string& remedy) {
    const std::string line = "zarorelay-hubctl: " + what + (remedy.empty() ? "" : "; " + remedy);
    std::cerr << Clean(line, kLongestLine) << std::endl;
    return code;
}

} // namespace ZARO::RelayHub::ctl
