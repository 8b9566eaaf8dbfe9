/// Characters of ASCII. What <cctype> answers depends on the locale; this doesn't.
#pragma once

namespace ZARO {

inline bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

inline bool IsUpper(char c) {
    return c >= 'A' && c <= 'Z';
}

inline bool IsAlphanumeric(char c) {
    return IsDigit(c) || IsUpper(c) || (c >= 'a' && c <= 'z');
}

/// The value of a hex digit, -1 for any other character.
inline int HexValue(char c) {
    if (IsDigit(c)) {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

} // namespace ZARO
