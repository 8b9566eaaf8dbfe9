#include "app/ctl/report.h"

#include <unistd.h>

#include <iostream>

#include "base/terminal.h"

namespace ZARO::Relay::ctl {

namespace {

constexpr std::size_t kLongestLine = 400; // columns

} // namespace

int Fail(int code, const std::string& what, const std::string& remedy) {
    std::cerr << Clean("zarorelayctl: " + what + "; " + remedy, kLongestLine) << std::endl;
    return code;
}

void Warn(const std::string& what) {
    std::cerr << Clean("zarorelayctl: warning: " + what, kLongestLine) << std::endl;
}

std::string RootOr(const std::string& remedy) {
    return geteuid() == 0 ? remedy : "run this as root";
}

} // namespace ZARO::Relay::ctl
