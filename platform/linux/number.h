/// Numbers in texts from outside.
#pragma once

#include <charconv>
#include <string_view>

namespace ZARO::Platform {

/// Reads a text that is a number from its first character to its last.
template <typename Number> bool ParseNumber(std::string_view text, int base, Number& number) {
    const char* end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number, base);
    return result.ec == std::errc() && result.ptr == end;
}

/// Reads a port of 1 to 65535.
inline bool ParsePort(std::string_view text, int& port) {
    return ParseNumber(text, 10, port) && port >= 1 && port <= 65535;
}

} // namespace ZARO::Platform
