/// How a request reached the hub.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace ZARO::RelayHub {

/// The way that a request took, so that a reply can lead back the same way.
struct Origin {
    std::string scheme; ///< "http" or "https"
    std::string host;   ///< an IPv6 address is in brackets
    int port = 0;
    std::string peer;         ///< address of the client
    std::int64_t network = 0; ///< of the client, see NetworkOf()
};

/// Takes a Host header apart. `peer` stays empty. Nothing when the header is malformed.
std::optional<Origin> ParseHost(const std::string& scheme, const std::string& header);

} // namespace ZARO::RelayHub
