/// The one way in which the library and its daemon log: RELAY_LOG(level, text, values...). It puts
/// the unit's file name and the line in front, so that a call reads as level, text, values, and
/// makes every text among the values harmless: those from servers, files and command lines can
/// neither forge a line nor steer a terminal.
///
/// The facility behind it, which prints what it is given, belongs to a higher floor: whoever logs
/// includes <zarorelayd/daemon.h> as well.
#pragma once

#include <cerrno>
#include <cstring>
#include <type_traits>
#include <utility>

#include "base/text.h"

/// The unit that a line names. A file that a unit was split into defines it as the unit's own file,
/// before its first include.
#ifndef RELAY_LOG_UNIT
#define RELAY_LOG_UNIT __FILE_NAME__
#endif

#define RELAY_LOG_FACILITY ::ZARO::Relay::Daemon

// The branch that is never taken has the compiler check the values against the text; __extension__
// lets a text use "%m" under -Wpedantic.
#define RELAY_LOG(level, ...)                                                                      \
    (__extension__(                                                                                \
        false ? RELAY_LOG_FACILITY::Log(level, RELAY_LOG_SELECT(__VA_ARGS__)(__VA_ARGS__))         \
              : ::ZARO::log::Line<RELAY_LOG_FACILITY>(                                             \
                    level, RELAY_LOG_SELECT(__VA_ARGS__)(__VA_ARGS__))))

// The standard has no portable way to drop a comma before an empty list of values: texts without
// values take the first form, texts with values the second.
#define RELAY_LOG_TEXT(text) "%s:%d " text, RELAY_LOG_UNIT, __LINE__
#define RELAY_LOG_VALUES(text, ...) "%s:%d " text, RELAY_LOG_UNIT, __LINE__, __VA_ARGS__
#define RELAY_LOG_SELECT(...)                                                                      \
    RELAY_LOG_NINTH(__VA_ARGS__, RELAY_LOG_VALUES, RELAY_LOG_VALUES, RELAY_LOG_VALUES,             \
                    RELAY_LOG_VALUES, RELAY_LOG_VALUES, RELAY_LOG_VALUES, RELAY_LOG_VALUES,        \
                    RELAY_LOG_TEXT, )
#define RELAY_LOG_NINTH(a, b, c, d, e, f, g, h, ninth, ...) ninth

namespace ZARO::log {

/// The syslog priorities in use.
enum Level : int {
    Error = 3,   ///< work was lost
    Warning = 4, ///< carried on; the text says how
    Notice = 5,
    Info = 6, ///< a state changed
    Debug = 7,
};

/// A number or an address, which goes out as it is.
template <class T> struct Plain {
    T value;
    T Value() const { return value; }
};

template <class T> auto Shown(T value, bool endsLine) noexcept {
    if constexpr (std::is_convertible_v<T, const char*>) {
        return Harmless(value, endsLine);
    } else {
        (void)endsLine;
        return Plain<T>{value};
    }
}

template <class Facility, class... Values>
int Print(int error, int level, const char* format, const Values&... values) noexcept {
    errno = error; // a text may have "%m"
    return Facility::Log(level, format, values.Value()...);
}

template <class Facility, std::size_t... At, class... Values>
int PrintAll(std::index_sequence<At...>, int level, const char* format, const char* unit, int line,
             Values... values) noexcept {
    const int error = errno;
    const std::size_t length = strlen(format);
    const bool textEnds = length > 1 && strcmp(format + length - 2, "%s") == 0;
    return Print<Facility>(error, level, format, Plain<const char*>{unit}, Plain<int>{line},
                           Shown(values, textEnds && At + 1 == sizeof...(At))...);
}

/// What RELAY_LOG calls; errno is the same afterwards. Never throws.
template <class Facility, class... Values>
int Line(int level, const char* format, const char* unit, int line, Values... values) noexcept {
    return level > Facility::_logLevel ? 0
                                       : PrintAll<Facility>(std::index_sequence_for<Values...>(),
                                                            level, format, unit, line, values...);
}

} // namespace ZARO::log
