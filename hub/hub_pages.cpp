#include "hub/hub_pages.h"

#include <memory>
#include <string>
#include <utility>

#include "hub/http_form.h"

namespace ZARO::RelayHub {

namespace {

constexpr char kCookie[] = "ZARORELAY";

void AnswerBatch(Control& control, Waiters& waiters, const std::shared_ptr<WebExchange>& exchange) {
    const WebRequest& request = exchange->Request();
    const std::string before = CookieValue(request.cookies, kCookie);
    const char* const scope = request.origin.scheme == "https" ? "; Path=/; Secure" : "; Path=/";
    const auto finish = [exchange, before, scope](std::string replies, const std::string& session) {
        WebReply reply{std::move(replies), "application/json", ""};
        if (session != before) {
            reply.setCookie = std::string(kCookie) + "=" + session + scope;
        }
        exchange->Answer(std::move(reply));
    };
    const Waiters::Ticket held = control.Answer(request.body, request.origin, before, finish);
    exchange->OnHangUp([&waiters, held] { waiters.Leave(held); });
}

} // namespace

WebPages ControlPages(Control& control, Waiters& waiters) {
    WebPages pages;
    pages["/Serv.php"] = [&](const std::shared_ptr<WebExchange>& exchange) {
        AnswerBatch(control, waiters, exchange);
    };
    return pages;
}

WebPages AliasPages(Alias& alias) {
    WebPages pages;
    pages["/alias_update.php"] = [&alias](const std::shared_ptr<WebExchange>& exchange) {
        exchange->Answer({alias.Update(exchange->Request().body), "text/plain", ""});
    };
    pages["/alias_query.php"] = [&alias](const std::shared_ptr<WebExchange>& exchange) {
        const WebRequest& request = exchange->Request();
        exchange->Answer({alias.Query(request.body, request.origin), "text/plain", ""});
    };
    return pages;
}

} // namespace ZARO::RelayHub
