/// The hub's log: one line a message on standard error, "level unit: text".
#pragma once

#include <chrono>
#include <mutex>

namespace ZARO::RelayHub {

/// The numbers are the syslog priorities.
enum class Level {
    Error = 3,   ///< work was lost
    Warning = 4, ///< carried on, the text says how
    Info = 6,    ///< a state changed
    Debug = 7,
};

/// Messages above `level` (3 to 7) are dropped from now on. The threshold starts at 6.
void SetLogLevel(int level);

/// Writes one line, cut at about 500 bytes. Any thread may call it; errno survives. Texts from a
/// peer are checked before they are passed.
void Log(Level level, const char* unit, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

/// Lines that strangers can cause at will: so many a minute, then only their number. Any thread may
/// call any method.
class LogQuota {
public:
    explicit LogQuota(Level level = Level::Warning, int quota = 10)
        : level_(level), quota_(quota) {}

    void Log(const char* unit, const char* format, ...) __attribute__((format(printf, 3, 4)));

private:
    const Level level_;
    const int quota_;
    std::mutex mutex_;
    std::chrono::steady_clock::time_point begin_; ///< of the present minute
    int lines_ = 0;                               ///< in it, written or not
};

} // namespace ZARO::RelayHub
