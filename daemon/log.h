/// The one way in which this system logs: RELAY_LOG(level, text, values...). It puts the unit's
/// file name and the line in front, so that a call reads as level, text, values, and makes every
/// text among the values harmless: those from servers, files and command lines can neither forge a
/// line nor steer a terminal. The facility behind it prints what it is given.
#pragma once

#include <cerrno>
#include <cstring>
#include <string>
#include <type_traits>
#include <utility>

#include <zarorelayd/daemon.h>

/// The unit that a line names. A file that a unit was split into defines it as the unit's own file,
/// before its first include.
#ifndef RELAY_LOG_UNIT
#define RELAY_LOG_UNIT __FILE_NAME__
#endif

// The branch that is never taken has the compiler check the values against the text; __extension__
// lets a text use "%m" under -Wpedantic.
#define RELAY_LOG(level, ...)                                                                      \
    (__extension__(                                                                                \
        false ? ::ZARO::Relay::Daemon::Log(level, RELAY_LOG_SELECT(__VA_ARGS__)(__VA_ARGS__))      \
              : ::ZARO::Relay::log::Line(level, RELAY_LOG_SELECT(__VA_ARGS__)(__VA_ARGS__))))

// The standard has no portable way to drop a comma before an empty list of values: texts without
// values take the first form, texts with values the second.
#define RELAY_LOG_TEXT(text) "%s:%d " text, RELAY_LOG_UNIT, __LINE__
#define RELAY_LOG_VALUES(text, ...) "%s:%d " text, RELAY_LOG_UNIT, __LINE__, __VA_ARGS__
#define RELAY_LOG_SELECT(...)                                                                      \
    RELAY_LOG_NINTH(__VA_ARGS__, RELAY_LOG_VALUES, RELAY_LOG_VALUES, RELAY_LOG_VALUES,             \
                    RELAY_LOG_VALUES, RELAY_LOG_VALUES, RELAY_LOG_VALUES, RELAY_LOG_VALUES,        \
                    RELAY_LOG_TEXT, )
#define RELAY_LOG_NINTH(a, b, c, d, e, f, g, h, ninth, ...) ninth

namespace ZARO::Relay::log {

/// A text with "?" for each control byte but tabs. Where it ends its line, it may have a newline at
/// its own end, as serialised JSON does. Copies only what it changes.
class Harmless {
public:
    explicit Harmless(const char* text, bool endsLine = false) noexcept : text_(text) {
        if (text == nullptr || IsClean(text + CleanLength(text), endsLine)) {
            return;
        }
        try {
            copy_ = text;
            for (std::size_t at = CleanLength(text); !IsClean(&copy_[at], endsLine);
                 at += CleanLength(&copy_[at])) {
                copy_[at] = '?';
            }
            text_ = copy_.c_str();
        } catch (...) {
            text_ = "?"; // out of memory
        }
    }
    Harmless(const Harmless&) = delete;
    Harmless& operator=(const Harmless&) = delete;
    const char* Value() const { return text_; }

private:
    /// Whether what is left of a text needs no change.
    static bool IsClean(const char* rest, bool endsLine) {
        return *rest == '\0' || (endsLine && strcmp(rest, "\n") == 0);
    }

    /// How many bytes come before the first that could do harm. A control character of two bytes,
    /// which UTF-8 terminals know as well, does it by its second.
    static std::size_t CleanLength(const char* text) {
        std::size_t length = 0;
        for (unsigned char before = 0; text[length] != '\0'; ++length) {
            const auto byte = static_cast<unsigned char>(text[length]);
            const bool control = byte < 0x20 ? byte != '\t' : byte == 0x7f;
            if (control || (before == 0xc2 && byte >= 0x80 && byte < 0xa0)) {
                break;
            }
            before = byte;
        }
        return length;
    }

    const char* text_;
    std::string copy_;
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

template <class... Values>
int Print(int error, int level, const char* format, const Values&... values) noexcept {
    errno = error; // a text may have "%m"
    return Daemon::Log(level, format, values.Value()...);
}

template <std::size_t... At, class... Values>
int PrintAll(std::index_sequence<At...>, int level, const char* format, const char* unit, int line,
             Values... values) noexcept {
    const int error = errno;
    const std::size_t length = strlen(format);
    const bool textEnds = length > 1 && strcmp(format + length - 2, "%s") == 0;
    return Print(error, level, format, Plain<const char*>{unit}, Plain<int>{line},
                 Shown(values, textEnds && At + 1 == sizeof...(At))...);
}

/// What RELAY_LOG calls; errno is the same afterwards. Never throws.
template <class... Values>
int Line(int level, const char* format, const char* unit, int line, Values... values) noexcept {
    return level > Daemon::_logLevel ? 0
                                     : PrintAll(std::index_sequence_for<Values...>(), level, format,
                                                unit, line, values...);
}

} // namespace ZARO::Relay::log
