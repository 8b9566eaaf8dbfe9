/// The one way in which this system logs: RELAY_LOG(level, text, values...). It puts the unit's
/// file name and the line in front, so that a call reads as level, text, values, and makes every
/// text among the values harmless: those from servers, files and command lines can neither forge a
/// line nor steer a terminal. The facility behind it prints what it is given.
#pragma once

#include <cerrno>
#include <string>
#include <type_traits>

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

/// A text with "?" for each control byte but tabs and a newline at its very end, which serialised
/// JSON has. Copies only what it changes.
class Harmless {
public:
    explicit Harmless(const char* text) noexcept : text_(text) {
        if (text == nullptr || !NeedsCopy(text)) {
            return;
        }
        try {
            copy_ = text;
            for (std::size_t i = 0; i < copy_.size(); ++i) {
                if (IsControl(&text[i])) {
                    copy_[i] = '?';
                }
            }
            text_ = copy_.c_str();
        } catch (...) {
            text_ = "?"; // out of memory
        }
    }
    const char* Value() const { return text_; }

private:
    static bool IsControl(const char* at) {
        const auto byte = static_cast<unsigned char>(*at);
        const bool last = byte == '\n' && at[1] == '\0';
        return (byte < 0x20 && byte != '\t' && !last) || byte == 0x7f;
    }
    static bool NeedsCopy(const char* text) {
        while (*text != '\0' && !IsControl(text)) {
            ++text;
        }
        return *text != '\0';
    }

    const char* text_;
    std::string copy_;
};

/// A number or an address, which goes out as it is.
template <class T> struct Plain {
    T value;
    T Value() const { return value; }
};

template <class T> auto Shown(T value) noexcept {
    if constexpr (std::is_convertible_v<T, const char*>) {
        return Harmless(value);
    } else {
        return Plain<T>{value};
    }
}

template <class... Values>
int Print(int error, int level, const char* format, const Values&... values) noexcept {
    errno = error; // a text may have "%m"
    return Daemon::Log(level, format, values.Value()...);
}

/// What RELAY_LOG calls; errno is the same afterwards. Never throws.
template <class... Values>
int Line(int level, const char* format, const char* unit, int line, Values... values) noexcept {
    if (level > Daemon::_logLevel) {
        return 0;
    }
    return Print(errno, level, format, Plain<const char*>{unit}, Plain<int>{line},
                 Shown(values)...);
}

} // namespace ZARO::Relay::log
