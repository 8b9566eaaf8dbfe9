/// The address of a hub, as an operator reads it out.
#pragma once

#include <optional>
#include <string>

namespace ZARO::Relay::ctl {

struct HubUrl {
    std::string protocol; ///< "http" or "https"
    std::string host;     ///< a name or an address; an IPv6 address is in brackets
    int port = 0;

    /// "https://relay.example.org:8443"
    std::string Text() const;
};

/// Reads "http://HOST[:PORT]" or "https://HOST[:PORT]"; a "/" may follow. Without a port it is the
/// one at which a hub listens: 8080 or 8443. Nothing for every other text.
std::optional<HubUrl> ReadHubUrl(const std::string& typed);

} // namespace ZARO::Relay::ctl
