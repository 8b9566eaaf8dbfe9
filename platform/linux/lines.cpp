#include "lines.h"

#include <algorithm>

#include "base/ascii.h"
#include "common.h"

namespace ZARO::Platform {
namespace {

constexpr std::string_view kBlanks = " \t\r";

bool IsKeyCharacter(char c) {
    return IsAlphanumeric(c) || c == '_' || c == '-' || c == '.';
}

bool IsBlankOrComment(std::string_view text) {
    text = Trim(text);
    return text.empty() || text.front() == '#';
}

/// The value at the beginning of `text` (after the '=' and its blanks), as it is written there.
std::optional<std::string_view> TakeWritten(std::string_view text) {
    if (!text.empty() && text.front() == '"') {
        const size_t quote = text.find('"', 1);
        if (quote == text.npos || !IsBlankOrComment(text.substr(quote + 1))) {
            return std::nullopt;
        }
        return text.substr(0, quote + 1);
    }
    size_t end = 0;
    while (end < text.size() &&
           (text[end] != '#' || (end > 0 && kBlanks.find(text[end - 1]) == kBlanks.npos))) {
        ++end;
    }
    text = text.substr(0, end);
    return text.substr(0, text.find_last_not_of(kBlanks) + 1); // npos + 1 is 0
}

} // namespace

bool TakeLine(std::string_view& rest, std::string_view& line) {
    if (rest.empty()) {
        return false;
    }
    const size_t end = rest.find('\n');
    line = rest.substr(0, end);
    rest.remove_prefix(end == rest.npos ? rest.size() : end + 1);
    return true;
}

std::string_view Trim(std::string_view text) {
    const size_t first = text.find_first_not_of(kBlanks);
    if (first == text.npos) {
        return text.substr(text.size());
    }
    return text.substr(first, text.find_last_not_of(kBlanks) + 1 - first);
}

bool IsKey(std::string_view key) {
    return !key.empty() && std::all_of(key.begin(), key.end(), IsKeyCharacter);
}

bool IsValue(std::string_view value) {
    return std::all_of(value.begin(), value.end(), [](char c) {
        return static_cast<unsigned char>(c) >= 0x20 && c != 0x7F && c != '"';
    });
}

std::optional<Assignment> ParseAssignment(std::string_view line) {
    const size_t equals = line.find('=');
    if (equals == line.npos || line.find('\0') != line.npos) {
        return std::nullopt;
    }
    Assignment found;
    found.key = Trim(line.substr(0, equals));
    const std::string_view rest = line.substr(equals + 1);
    const size_t begin = std::min(rest.find_first_not_of(kBlanks), rest.size());
    const auto written = TakeWritten(rest.substr(begin));
    if (!IsKey(found.key) || !written) {
        return std::nullopt;
    }
    found.written = *written;
    const bool quoted = !written->empty() && written->front() == '"';
    found.value = quoted ? written->substr(1, written->size() - 2) : *written;
    return found;
}

std::optional<std::string_view> FindValue(std::string_view text, std::string_view key) {
    std::optional<std::string_view> value;
    for (std::string_view line; TakeLine(text, line);) {
        const auto found = ParseAssignment(line);
        if (found && found->key == key) {
            value = found->value;
        }
    }
    return value;
}

std::string ReadValue(const std::string& file, std::string_view key) {
    std::string text;
    if (ReadWhole(file, text) != 0) {
        return "";
    }
    return std::string(FindValue(text, key).value_or(""));
}

} // namespace ZARO::Platform
