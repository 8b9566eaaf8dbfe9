/// Takes one HTTP request from the bytes that a client sends.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "hub/web_exchange.h"

namespace ZARO::RelayHub {

/// For one thread. Bounds what it keeps: 32 KiB of head, 256 KiB of body.
class WebParser {
public:
    enum class Progress {
        More,    ///< it needs more bytes
        Head,    ///< the head is whole; call Take() again for the body
        Whole,   ///< the request is whole
        Refused, ///< answer with Refusal()
        Endless, ///< more than a request may have: hang up
    };

    /// `pages` must outlive it.
    explicit WebParser(const WebPages& pages);
    ~WebParser();

    /// Takes what belongs to the request from the front of `input`.
    Progress Take(std::string& input);
    /// The status of a refused request.
    int Refusal() const { return refusal_; }

    // From Head on.

    const WebHandler& Handler() const { return *handler_; }
    /// A header's value, "" when there is none.
    std::string Header(const char* name) const;
    /// Whether the client waits for leave to send the body.
    bool ExpectsContinue() const;
    /// Whether the client keeps the connection and it is clear where its next request begins.
    bool MayGoOn() const;

    /// From Whole on, once.
    std::string TakeBody();

private:
    struct Parser;

    Progress Judge();
    Progress Refuse(int status);

    const WebPages& pages_;
    const std::unique_ptr<Parser> parser_;
    const WebHandler* handler_ = nullptr; ///< of the page that it asks for
    int refusal_ = 0;
    std::size_t budget_; ///< bytes that the body may still take, with all that surrounds it
};

} // namespace ZARO::RelayHub
