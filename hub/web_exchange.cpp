#include "hub/web_exchange.h"

#include <utility>

#include "hub/web_connection.h"

namespace ZARO::RelayHub {

WebExchange::WebExchange(std::shared_ptr<WebConnection> connection, WebRequest request)
    : connection_(std::move(connection)), request_(std::move(request)) {
}

WebExchange::~WebExchange() {
    if (!answered_) {
        connection_->End(true);
    }
}

void WebExchange::Answer(WebReply reply) {
    std::function<void()> unused; // goes after the lock
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (answered_) {
            return;
        }
        answered_ = true;
        unused = std::move(gone_);
    }
    connection_->Answer(std::move(reply));
}

void WebExchange::OnHangUp(std::function<void()> gone) {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (answered_) {
            return;
        }
        if (!hungUp_) {
            gone_ = std::move(gone);
            return;
        }
    }
    gone();
}

bool WebExchange::HangUp() {
    std::function<void()> gone;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        hungUp_ = true;
        gone = answered_ ? nullptr : std::move(gone_);
    }
    if (!gone) {
        return false;
    }
    gone();
    return true;
}

} // namespace ZARO::RelayHub
