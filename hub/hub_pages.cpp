#include "hub/hub_pages.h"

#include <memory>
#include <string>
#include <utility>

#include "base/json.h"
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

std::string Describe(const HubFacts& facts, const Origin& origin) {
    Json::Value document(Json::objectValue);
    document["hub"] = "zarorelay";
    document["protocol"] = 1;
    document["version"] = ZARO_VERSION;
    document["admission"] = facts.admitsAll ? "open" : "listed";
    Json::Value& control = document["control"];
    control["protocol"] = origin.scheme;
    control["host"] = origin.host;
    control["port"] = origin.port;
    if (const int port = facts.aliasPort()) {
        // Whoever came over HTTPS is to take the same way, whatever port it leads to here.
        const int way = origin.scheme == "https" ? origin.port : port;
        document["alias"]["url"] = "https://" + origin.host + ":" + std::to_string(way);
    }
    if (const int port = facts.sshPort()) {
        document["relay"]["ssh_port"] = port;
    }
    return json::Compact(document);
}

} // namespace

WebPages FactPages(HubFacts facts) {
    WebPages pages;
    pages[std::string(kGet) + "/.well-known/zarorelay"] =
        [facts = std::move(facts)](const std::shared_ptr<WebExchange>& exchange) {
            exchange->Answer({Describe(facts, exchange->Request().origin), "application/json", ""});
        };
    return pages;
}

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
