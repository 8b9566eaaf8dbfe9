/// Lines of the platform's text files: `key=value` or `key="value"`, with blanks allowed around
/// both and a comment (`#`) after them.
///
/// Of several lines with one key the last one counts, as it does for a shell that reads the file.
/// A line that is not of this form (an unclosed quote, a key of other characters than letters,
/// digits, '_', '-' and '.', a zero byte) is skipped.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace ZARO::Platform {

/// A line taken apart. The views lie in the line.
struct Assignment {
    std::string_view key;
    std::string_view value;
    std::string_view written; // the value as written, with its quotes
};

/// Takes the next line off `rest`, without its line end; false when none is left.
bool TakeLine(std::string_view& rest, std::string_view& line);

std::string_view Trim(std::string_view text);

bool IsKey(std::string_view key);

/// Whether `value` can be written between quotes and read back.
bool IsValue(std::string_view value);

std::optional<Assignment> ParseAssignment(std::string_view line);

/// The value of `key` in a file's text. It lies in the text.
std::optional<std::string_view> FindValue(std::string_view text, std::string_view key);

/// The value of `key` in `file`; empty when the file can't be read, or holds none.
std::string ReadValue(const std::string& file, std::string_view key);

} // namespace ZARO::Platform
