#include "hub/origin.h"

#include <algorithm>
#include <cstdlib>

#include "base/ascii.h"
#include "base/names.h"
#include "hub/names.h"

namespace ZARO::RelayHub {

std::optional<Origin> ParseHost(const std::string& scheme, const std::string& header) {
    Origin origin;
    origin.scheme = scheme;
    origin.port = scheme == "https" ? 443 : 80;
    const std::size_t colon = header.rfind(':');
    const bool hasPort = colon != std::string::npos && header.find(']', colon) == std::string::npos;
    origin.host = header.substr(0, hasPort ? colon : std::string::npos);
    if (hasPort) {
        const std::string port = header.substr(colon + 1);
        if (port.empty() || port.size() > 5 || !std::all_of(port.begin(), port.end(), IsDigit)) {
            return std::nullopt;
        }
        origin.port = atoi(port.c_str());
    }
    if (!IsUrlHost(origin.host) || !IsPort(origin.port)) {
        return std::nullopt;
    }
    return origin;
}

} // namespace ZARO::RelayHub
