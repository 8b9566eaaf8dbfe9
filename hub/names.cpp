#include "hub/names.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "hub/ascii.h"

namespace ZARO::RelayHub {

namespace {

/// Whether `text` has 1 to `longest` characters and each is a letter, a digit or one of `others`.
bool IsMadeOf(const std::string& text, std::size_t longest, std::string_view others) {
    return !text.empty() && text.size() <= longest &&
           std::all_of(text.begin(), text.end(), [others](char c) {
               return IsAlphanumeric(c) || others.find(c) != std::string_view::npos;
           });
}

} // namespace

bool IsSerial(const std::string& text) {
    return IsMadeOf(text, 35, "-_.");
}

bool IsToken(const std::string& text) {
    return !text.empty() && text.size() <= 32 &&
           std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c <= '~'; });
}

bool IsServiceId(const std::string& text) {
    return IsMadeOf(text, 63, "_-.") && text[0] != '-' && text[0] != '.';
}

bool IsAliasName(const std::string& text) {
    return IsMadeOf(text, 63, "-") && std::none_of(text.begin(), text.end(), IsUpper);
}

bool IsShortText(const std::string& text, std::size_t longest) {
    return text.size() <= longest && std::none_of(text.begin(), text.end(), [](char c) {
               return static_cast<unsigned char>(c) < ' ' || c == '\x7f';
           });
}

bool IsAddress(const std::string& text) {
    unsigned char bytes[sizeof(in6_addr)];
    return text.find('\0') == std::string::npos && // what follows it would go unchecked
           (inet_pton(AF_INET, text.c_str(), bytes) == 1 ||
            inet_pton(AF_INET6, text.c_str(), bytes) == 1);
}

bool IsHost(const std::string& text) {
    return IsMadeOf(text, 253, "-._") && text[0] != '-' && text[0] != '.';
}

bool IsUrlHost(const std::string& text) {
    if (text.size() > 2 && text.front() == '[' && text.back() == ']') {
        const std::string address = text.substr(1, text.size() - 2);
        return address.find(':') != std::string::npos && IsAddress(address);
    }
    return IsHost(text);
}

std::optional<std::string> ServerIdOf(const std::string& mac) {
    std::string digits;
    for (std::size_t i = 0; i < mac.size(); ++i) {
        const bool separator = mac.size() == 17 && i % 3 == 2;
        if (separator ? mac[i] != ':' && mac[i] != '-' : HexValue(mac[i]) < 0) {
            return std::nullopt;
        }
        if (!separator) {
            digits += mac[i];
        }
    }
    if (digits.size() != 12) {
        return std::nullopt;
    }
    const auto number = static_cast<unsigned>(strtoul(digits.c_str() + 6, nullptr, 16));
    // Two check bits: the parity of all the bits, and of those at odd places.
    const auto all = static_cast<unsigned>(__builtin_parity(number));
    const auto odd = static_cast<unsigned>(__builtin_parity(number & 0xAAAAAA));
    char id[16];
    (void)snprintf(id, sizeof id, "%09u", number * 4 + odd * 2 + all);
    return id;
}

} // namespace ZARO::RelayHub
