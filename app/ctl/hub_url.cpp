#include "app/ctl/hub_url.h"

#include <algorithm>

#include "app/common/checks.h"
#include "base/ascii.h"
#include "base/names.h"

namespace ZARO::Relay::ctl {

namespace {

constexpr int kHttpPort = 8080;
constexpr int kHttpsPort = 8443;
constexpr std::size_t kLongestPort = 5; // digits

/// Takes ":PORT" off the end, if there is one. False when what follows the colon is no port.
bool TakePort(std::string& authority, int& port) {
    const std::size_t colon = authority.rfind(':');
    const std::size_t bracket = authority.rfind(']');
    if (colon == std::string::npos || (bracket != std::string::npos && colon < bracket)) {
        return true;
    }
    const std::string digits = authority.substr(colon + 1);
    authority.resize(colon);
    const bool plain = !digits.empty() && digits.size() <= kLongestPort &&
                       std::all_of(digits.begin(), digits.end(), IsDigit);
    port = plain ? std::stoi(digits) : 0;
    return IsPort(port);
}

} // namespace

std::string HubUrl::Text() const {
    return protocol + "://" + host + ":" + std::to_string(port);
}

std::optional<HubUrl> ReadHubUrl(const std::string& typed) {
    const std::size_t slashes = typed.find("://");
    if (slashes == std::string::npos) {
        return std::nullopt;
    }
    HubUrl url;
    url.protocol = typed.substr(0, slashes);
    url.host = typed.substr(slashes + 3);
    if (!url.host.empty() && url.host.back() == '/') {
        url.host.pop_back();
    }
    url.port = url.protocol == "https" ? kHttpsPort : kHttpPort;
    const bool known = url.protocol == "https" || url.protocol == "http";
    if (!known || !TakePort(url.host, url.port) || !app::IsUrlHost(url.host)) {
        return std::nullopt;
    }
    return url;
}

} // namespace ZARO::Relay::ctl
