/// The alias server's two pages: a form comes in, a word or a JSON object goes out.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <utility>

#include "hub/origin.h"
#include "hub/store.h"

namespace ZARO::RelayHub {

/// May be called from any thread; never throws.
class Alias {
public:
    /// A name lasts for `ttl` after it was last kept alive. `visitorHost` is the host that visitors
    /// are shown when the relay itself has no name; empty = the host of their own request.
    Alias(Store& store, std::chrono::seconds ttl, std::function<bool(const TunnelRecord&)> isUp,
          std::string visitorHost)
        : store_(store), ttl_(ttl), isUp_(std::move(isUp)), visitorHost_(std::move(visitorHost)) {}

    /// Maps, renews or deletes a name of the device whose credentials the form has. Returns a word.
    std::string Update(const std::string& form);
    /// Returns where the services of a name are, as JSON, or a word. Anybody may ask.
    std::string Query(const std::string& form, const Origin& origin);

private:
    std::string Describe(const std::string& name, const Origin& origin);

    Store& store_;
    const std::chrono::seconds ttl_;
    const std::function<bool(const TunnelRecord&)> isUp_;
    const std::string visitorHost_;
};

} // namespace ZARO::RelayHub
