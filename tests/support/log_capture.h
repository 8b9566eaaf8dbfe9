/// What code writes to a standard stream, and the log lines in it.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <time.h>

#include <algorithm>

#include <gtest/gtest.h>

#include <zarorelayd/daemon.h>

#include "tests/support/processes.h"

/// What `code`, and the processes it starts, write to descriptor `fd`.
template <class Code> std::string Captured(int fd, Code code) {
    const int file = memfd_create("captured", MFD_CLOEXEC);
    fflush(nullptr);
    const int saved = fcntl(fd, F_DUPFD_CLOEXEC, 3);
    dup2(file, fd);
    code();
    fflush(nullptr);
    dup2(saved, fd);
    close(saved);
    const std::string text = ReadFile("/proc/self/fd/" + std::to_string(file));
    close(file);
    return text;
}

/// The messages of a unit in `output`: lines with a time stamp, then the unit's source file.
inline std::vector<std::string> LogTexts(const std::string& unit, const std::string& output) {
    std::vector<std::string> texts;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        tm stamp = {};
        char source[64] = {};
        int start = 0;
        const char* rest = strptime(line.c_str(), "%a %b %e %T %Y ", &stamp);
        sscanf(rest != nullptr ? rest : "", "%63[a-z_].cpp:%*u %n", source, &start);
        if (start > 0 && (unit.empty() || source == unit)) {
            texts.push_back(rest + start);
        }
    }
    return texts;
}

/// The messages of a unit while `code` runs with this threshold.
template <class Code>
std::vector<std::string> LogOf(const std::string& unit, int level, Code code) {
    const int before = ZARO::Relay::Daemon::_logLevel;
    ZARO::Relay::Daemon::_logLevel = level;
    const std::string output = Captured(STDERR_FILENO, code);
    ZARO::Relay::Daemon::_logLevel = before;
    return LogTexts(unit, output);
}

/// Whether `code`, which is run twice, logs `text` once at exactly this level.
template <class Code>
testing::AssertionResult Logs(const std::string& unit, int level, const std::string& text,
                              Code code) {
    const std::vector<std::string> below = LogOf(unit, level - 1, code);
    const std::vector<std::string> at = LogOf(unit, level, code);
    const bool right = std::count(at.begin(), at.end(), text) == 1 &&
                       std::count(below.begin(), below.end(), text) == 0;
    return (right ? testing::AssertionSuccess() : testing::AssertionFailure())
           << unit << " should log [" << text << "] once at level " << level << "; it logs there "
           << testing::PrintToString(at) << " and below " << testing::PrintToString(below);
}
