#include "base/terminal.h"

#include <stdlib.h>
#include <unistd.h>
#include <wchar.h>

#include <algorithm>
#include <cstring>
#include <ctime>

#include "base/names.h"

namespace ZARO {

namespace {

constexpr std::size_t kGap = 2;

/// Steps over the next character. Gives its width, or -1 when it must not be shown.
int TakeCharacter(const std::string& text, std::size_t& at, std::mbstate_t& state) {
    wchar_t character = 0;
    const std::size_t length = mbrtowc(&character, text.data() + at, text.size() - at, &state);
    if (length == 0 || length > text.size() - at) { // zero byte, invalid, or cut off
        state = std::mbstate_t();
        ++at;
        return -1;
    }
    at += length;
    const int width = wcwidth(character);
    return width >= 1 ? width : -1;
}

const char* Colour(Tone tone) {
    switch (tone) {
    case Tone::Good:
        return "\033[32m";
    case Tone::Warning:
        return "\033[33m";
    case Tone::Bad:
        return "\033[31m";
    case Tone::Faint:
        return "\033[2m";
    case Tone::Plain:
        break;
    }
    return "";
}

std::string Number(std::int64_t number, const char* unit) {
    return std::to_string(number) + " " + unit;
}

} // namespace

std::string Clean(const std::string& text, std::size_t columns) {
    std::string clean;
    std::size_t used = 0;
    std::mbstate_t state{};
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t begin = at;
        const int width = TakeCharacter(text, at, state);
        used += width > 0 ? static_cast<std::size_t>(width) : 1;
        if (used > columns) {
            break;
        }
        clean += width > 0 ? text.substr(begin, at - begin) : "?";
    }
    return clean;
}

std::size_t Columns(const std::string& clean) {
    std::size_t columns = 0;
    std::mbstate_t state{};
    for (std::size_t at = 0; at < clean.size();) {
        columns += static_cast<std::size_t>(std::max(1, TakeCharacter(clean, at, state)));
    }
    return columns;
}

std::string Layout(const std::vector<std::vector<Cell>>& rows, bool colour) {
    std::vector<std::size_t> widths;
    for (const auto& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t i = 0; i + 1 < row.size(); ++i) { // the last one needs no alignment
            widths[i] = std::max(widths[i], Columns(row[i].text));
        }
    }
    std::string text;
    for (const auto& row : rows) {
        for (std::size_t i = 0; i < row.size(); ++i) {
            const bool painted = colour && row[i].tone != Tone::Plain;
            text += painted ? Colour(row[i].tone) + row[i].text + "\033[0m" : row[i].text;
            if (i + 1 < row.size()) {
                text.append(widths[i] - Columns(row[i].text) + kGap, ' ');
            }
        }
        text += '\n';
    }
    return text;
}

std::string HostAndPort(const std::string& host, int port) {
    return ForUrl(host) + ":" + std::to_string(port);
}

bool IsTerminal() {
    return isatty(STDOUT_FILENO) == 1;
}

bool WantsColour() {
    const char* refused = getenv("NO_COLOR");
    const char* terminal = getenv("TERM");
    return IsTerminal() && (refused == nullptr || refused[0] == '\0') && terminal != nullptr &&
           strcmp(terminal, "dumb") != 0;
}

std::string Duration(std::int64_t seconds) {
    constexpr std::int64_t kMinute = 60;
    constexpr std::int64_t kHour = 60 * kMinute;
    constexpr std::int64_t kDay = 24 * kHour;
    if (seconds < kMinute) {
        return Number(std::max<std::int64_t>(seconds, 0), "s");
    }
    if (seconds < kHour) {
        return Number(seconds / kMinute, "min");
    }
    if (seconds < kDay) {
        return Number(seconds / kHour, "h ") + Number(seconds % kHour / kMinute, "min");
    }
    return seconds < 2 * kDay ? "1 day" : Number(seconds / kDay, "days");
}

std::string DateAndTime(std::int64_t time) {
    const std::time_t point = time;
    std::tm fields{};
    char text[64];
    if (localtime_r(&point, &fields) == nullptr ||
        strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &fields) == 0) {
        return "?";
    }
    return text;
}

} // namespace ZARO
