#include "hub/names.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>

#include "base/ascii.h"
#include "base/names.h"

namespace ZARO::RelayHub {

bool IsSerial(const std::string& text) {
    return IsMadeOf(text, 35, "-_.");
}

bool IsToken(const std::string& text) {
    return !text.empty() && text.size() <= 32 &&
           std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c <= '~'; });
}

bool IsShortText(const std::string& text, std::size_t longest) {
    return text.size() <= longest && std::none_of(text.begin(), text.end(), [](char c) {
               return static_cast<unsigned char>(c) < ' ' || c == '\x7f';
           });
}

bool IsUrlHost(const std::string& text) {
    if (text.size() > 2 && text.front() == '[' && text.back() == ']') {
        const std::string address = text.substr(1, text.size() - 2);
        return address.find(':') != std::string::npos && IsAddress(address);
    }
    return IsHostName(text);
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
    return ZARO::ServerIdOf(static_cast<std::uint32_t>(strtoul(digits.c_str() + 6, nullptr, 16)));
}

} // namespace ZARO::RelayHub
