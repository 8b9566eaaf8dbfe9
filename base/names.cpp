#include "base/names.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>

#include "base/ascii.h"

namespace ZARO {

bool IsMadeOf(const std::string& text, std::size_t longest, std::string_view others) {
    return !text.empty() && text.size() <= longest &&
           std::all_of(text.begin(), text.end(), [others](char c) {
               return IsAlphanumeric(c) || others.find(c) != std::string_view::npos;
           });
}

bool IsServiceId(const std::string& text) {
    return IsMadeOf(text, 63, "_-.") && text[0] != '-' && text[0] != '.';
}

bool IsPlainAliasName(const std::string& text) {
    return IsMadeOf(text, 63, "-") && std::none_of(text.begin(), text.end(), IsUpper);
}

bool IsHostName(const std::string& text) {
    return IsMadeOf(text, 253, "-._") && text[0] != '-' && text[0] != '.';
}

bool IsAddress(const std::string& text) {
    unsigned char bytes[sizeof(in6_addr)];
    return text.find('\0') == std::string::npos && // inet_pton would stop there
           (inet_pton(AF_INET, text.c_str(), bytes) == 1 ||
            inet_pton(AF_INET6, text.c_str(), bytes) == 1);
}

std::string ForUrl(const std::string& host) {
    return host.find(':') == std::string::npos ? host : "[" + host + "]";
}

bool IsPort(int port) {
    return port >= 1 && port <= 65535;
}

std::string ServerIdOf(std::uint32_t bits) {
    const auto all = static_cast<unsigned>(__builtin_parity(bits));
    const auto odd = static_cast<unsigned>(__builtin_parity(bits & 0xAAAAAA));
    char id[16];
    (void)snprintf(id, sizeof id, "%09u", bits * 4 + odd * 2 + all);
    return id;
}

} // namespace ZARO
