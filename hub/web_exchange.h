/// One request of a web client and its reply, which may come later and from another thread.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "hub/origin.h"

namespace ZARO::RelayHub {

class WebConnection;

struct WebRequest {
    std::string body;    ///< at most 256 KiB
    std::string cookies; ///< the Cookie header
    Origin origin;
};

struct WebReply {
    std::string body;
    std::string type;      ///< MIME type
    std::string setCookie; ///< the Set-Cookie header, or ""
};

/// Whoever holds it is to answer. When the last one lets go of it without an answer, the connection
/// ends.
class WebExchange {
public:
    WebExchange(std::shared_ptr<WebConnection> connection, WebRequest request);
    WebExchange(const WebExchange&) = delete;
    WebExchange& operator=(const WebExchange&) = delete;
    ~WebExchange();

    /// Valid until the handler returns.
    const WebRequest& Request() const { return request_; }
    /// Sends the reply; a second one is ignored. Any thread may call it; it does not block.
    void Answer(WebReply reply);
    /// `gone` is called at most once: when the client is found gone before it was answered, or at
    /// once if it is gone already. Any thread may call this; `gone` may come from any thread and
    /// must not block.
    void OnHangUp(std::function<void()> gone);

private:
    friend class WebConnection;

    /// The client is gone. True when somebody was told.
    bool HangUp();
    /// The handler is through; the memory is of no more use.
    void DropRequest() { request_ = WebRequest(); }

    const std::shared_ptr<WebConnection> connection_;
    WebRequest request_;
    std::mutex mutex_; ///< guards the following
    std::function<void()> gone_;
    bool answered_ = false;
    bool hungUp_ = false;
};

/// Runs on a worker and may block for the store; must not throw.
using WebHandler = std::function<void(std::shared_ptr<WebExchange>)>;

/// By path. They take a POST each, but those with kGet before the path take a GET.
constexpr char kGet[] = "GET ";
using WebPages = std::map<std::string, WebHandler>;

} // namespace ZARO::RelayHub
