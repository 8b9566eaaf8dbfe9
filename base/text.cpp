#include "base/text.h"

#include <algorithm>
#include <cstring>

namespace ZARO {

namespace {

constexpr std::size_t kLongestQuote = 64;

/// How many bytes come before the first that could do harm. A control character of two bytes, which
/// UTF-8 terminals know as well, does it by its second.
std::size_t HarmlessLength(const char* text) {
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

/// Whether the rest of a text, behind what is harmless, may stay as it is.
bool MayStay(const char* rest, bool endsLine) {
    return *rest == '\0' || (endsLine && strcmp(rest, "\n") == 0);
}

} // namespace

std::string Printable(const std::string& text) {
    std::string printable = text.substr(0, kLongestQuote);
    std::replace_if(
        printable.begin(), printable.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
    return printable;
}

bool IsPrintable(const std::string& text) {
    return Printable(text) == text;
}

Harmless::Harmless(const char* text, bool endsLine) noexcept : text_(text) {
    if (text == nullptr || MayStay(text + HarmlessLength(text), endsLine)) {
        return;
    }
    try {
        copy_ = text;
        for (std::size_t at = HarmlessLength(text); !MayStay(&copy_[at], endsLine);
             at += HarmlessLength(&copy_[at])) {
            copy_[at] = '?';
        }
        text_ = copy_.c_str();
    } catch (...) {
        text_ = "?";
    }
}

} // namespace ZARO
