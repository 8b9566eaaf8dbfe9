#include "app/common/checks.h"

#include "base/names.h"

namespace ZARO::Relay::app {

bool IsRelayHost(const std::string& host) {
    return IsAddress(host) || IsHostName(host);
}

bool IsUrlHost(const std::string& host) {
    const bool bracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
    return bracketed ? IsAddress(host.substr(1, host.size() - 2)) : IsRelayHost(host);
}

bool IsPagePath(const std::string& page) {
    return page.empty() || IsMadeOf(page, 253, "_-./");
}

bool IsRelayUser(const std::string& user) {
    // The device's ssh takes no others, since its configuration may put the name into a command.
    return IsMadeOf(user, 255, "._-+=") && user[0] != '-';
}

bool IsAliasName(const std::string& name) {
    return IsMadeOf(name, 63, "_-.");
}

} // namespace ZARO::Relay::app
