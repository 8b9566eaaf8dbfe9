#include "app/daemon/session.h"

#include <algorithm>

namespace ZARO::Relay::app {

namespace {

constexpr std::size_t kLongestSession = 4096; // as much as any server takes in one header

/// The "name=value" of a cookie line; empty for one that is left out.
std::string CookieOf(const std::string& line, bool open) {
    std::string fields[7];
    std::size_t at = 0;
    for (std::string& field : fields) {
        const std::size_t end = std::min(line.find('\t', at), line.size());
        field = line.substr(std::min(at, line.size()), end - std::min(at, line.size()));
        at = end + 1;
    }
    const std::string cookie = fields[5] + "=" + fields[6];
    const bool clean = std::none_of(cookie.begin(), cookie.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte <= ' ' || byte == ';' || byte == ',' || byte >= 0x7f;
    });
    const bool named = !fields[5].empty() && fields[5].find('=') == std::string::npos;
    const bool secret = fields[3] == "TRUE";
    return !named || !clean || (secret && open) ? "" : cookie;
}

} // namespace

std::string SessionOf(const std::list<std::string>& lines, bool open) {
    std::string session;
    for (const std::string& line : lines) {
        const std::string cookie = CookieOf(line, open);
        if (!cookie.empty() && session.size() + cookie.size() < kLongestSession) {
            session += (session.empty() ? "" : "; ") + cookie;
        }
    }
    return session;
}

} // namespace ZARO::Relay::app
