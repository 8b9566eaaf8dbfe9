#include "hub/log.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>

namespace ZARO::RelayHub {

namespace {

std::atomic<int> gLevel{static_cast<int>(Level::Info)};

const char* NameOf(Level level) {
    switch (level) {
    case Level::Error:
        return "error";
    case Level::Warning:
        return "warning";
    case Level::Info:
        return "info";
    case Level::Debug:
        return "debug";
    }
    return "?";
}

void Write(Level level, const char* unit, const char* format, va_list arguments) {
    if (static_cast<int>(level) > gLevel) {
        return;
    }
    const int savedErrno = errno;
    char line[512];
    const std::size_t room = sizeof line - 1; // one byte stays for the line end
    const auto used =
        static_cast<std::size_t>(snprintf(line, room, "%s %s: ", NameOf(level), unit));
    const int wanted = vsnprintf(line + used, room - used, format, arguments);
    std::size_t length = used + static_cast<std::size_t>(std::max(wanted, 0));
    length = std::min(length, room - 1);
    line[length] = '\n';
    // One write per line keeps the lines of several threads apart. There is nowhere to report its
    // failure.
    (void)!write(STDERR_FILENO, line, length + 1);
    errno = savedErrno;
}

} // namespace

void SetLogLevel(int level) {
    gLevel = level;
}

void Log(Level level, const char* unit, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    Write(level, unit, format, arguments);
    va_end(arguments);
}

void LogQuota::Log(const char* unit, const char* format, ...) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto now = std::chrono::steady_clock::now();
    if (lines_ == 0 || now >= begin_ + std::chrono::minutes(1)) {
        if (lines_ > quota_) {
            RelayHub::Log(level_, unit, "%d more lines like these were left out", lines_ - quota_);
        }
        begin_ = now;
        lines_ = 0;
    }
    if (++lines_ <= quota_) {
        va_list arguments;
        va_start(arguments, format);
        Write(level_, unit, format, arguments);
        va_end(arguments);
    }
}

} // namespace ZARO::RelayHub
