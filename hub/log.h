/// The hub's log on standard error: one line per message, "level unit: text".
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

/// Drops messages above `level` (3 to 7) from now on. Before the first call the bound is 6.
void SetLogLevel(int level);

/// Writes one line, cut at about 500 bytes. Any thread may call it; errno survives. The caller has
/// checked what comes from a peer.
void Log(Level level, const char* unit, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

/// Lines that strangers can cause at will: at most `quota` per minute, then only how many more
/// there were. Any thread may call any method.
class LogQuota {
public:
    explicit LogQuota(Level level = Level::Warning, int quota = 10)
        : level_(level), quota_(quota) {}

    void Log(const char* unit, const char* format, ...) __attribute__((format(printf, 3, 4)));

private:
    const Level level_;
    const int quota_;
    std::mutex mutex_;
    std::chrono::steady_clock::time_point begin_; ///< of the current minute
    int lines_ = 0;                               ///< in that minute, written or not
};

} // namespace ZARO::RelayHub
