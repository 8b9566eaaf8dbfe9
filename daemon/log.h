/// The one way in which this system logs: RELAY_LOG(level, text, values...). It puts the source
/// file's base name and the line in front, so that a call reads as level, text, values.
#pragma once

#include <zarorelayd/daemon.h>

// __extension__ lets a text use "%m" under -Wpedantic.
#define RELAY_LOG(level, ...)                                                                      \
    (__extension__ ::ZARO::Relay::Daemon::Log(level, RELAY_LOG_SELECT(__VA_ARGS__)(__VA_ARGS__)))

// The standard has no portable way to drop a comma before an empty list of values: texts without
// values take the first form, texts with values the second.
#define RELAY_LOG_TEXT(text) "%s:%d " text, __FILE_NAME__, __LINE__
#define RELAY_LOG_VALUES(text, ...) "%s:%d " text, __FILE_NAME__, __LINE__, __VA_ARGS__
#define RELAY_LOG_SELECT(...)                                                                      \
    RELAY_LOG_NINTH(__VA_ARGS__, RELAY_LOG_VALUES, RELAY_LOG_VALUES, RELAY_LOG_VALUES,             \
                    RELAY_LOG_VALUES, RELAY_LOG_VALUES, RELAY_LOG_VALUES, RELAY_LOG_VALUES,        \
                    RELAY_LOG_TEXT, )
#define RELAY_LOG_NINTH(a, b, c, d, e, f, g, h, ninth, ...) ninth
