#include "app/common/checks.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <cstring>

namespace ZARO::Relay::app {

namespace {

constexpr std::size_t kLongestId = 63;
constexpr std::size_t kLongestHost = 253;
constexpr std::size_t kLongestUser = 255;

bool IsLetterOrDigit(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 && static_cast<unsigned char>(c) < 128;
}

bool ConsistsOf(const std::string& text, const char* extra) {
    return std::all_of(text.begin(), text.end(), [=](char c) {
        return IsLetterOrDigit(c) || (c != '\0' && strchr(extra, c) != nullptr);
    });
}

bool IsAddress(const std::string& host) {
    in6_addr address;
    return host.find('\0') == std::string::npos && // inet_pton would stop there
           (inet_pton(AF_INET, host.c_str(), &address) == 1 ||
            inet_pton(AF_INET6, host.c_str(), &address) == 1);
}

} // namespace

bool IsServiceId(const std::string& id) {
    return !id.empty() && id.size() <= kLongestId && id[0] != '-' && id[0] != '.' &&
           ConsistsOf(id, "_-.");
}

bool IsRelayHost(const std::string& host) {
    if (IsAddress(host)) {
        return true;
    }
    return !host.empty() && host.size() <= kLongestHost && host[0] != '-' && host[0] != '.' &&
           ConsistsOf(host, "_-.");
}

bool IsUrlHost(const std::string& host) {
    const bool bracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
    return bracketed ? IsAddress(host.substr(1, host.size() - 2)) : IsRelayHost(host);
}

bool IsPagePath(const std::string& page) {
    return page.size() <= kLongestHost && ConsistsOf(page, "_-./");
}

bool IsRelayUser(const std::string& user) {
    // The device's ssh takes no others, since its configuration may put the name into a command.
    return !user.empty() && user.size() <= kLongestUser && user[0] != '-' &&
           ConsistsOf(user, "._-+=");
}

bool IsPort(int port) {
    return port >= 1 && port <= 65535;
}

bool IsAliasName(const std::string& name) {
    return !name.empty() && name.size() <= kLongestId && ConsistsOf(name, "_-.");
}

bool IsPlainAliasName(const std::string& name) {
    return IsAliasName(name) && std::none_of(name.begin(), name.end(), [](char c) {
               return c == '_' || c == '.' || (c >= 'A' && c <= 'Z');
           });
}

} // namespace ZARO::Relay::app
