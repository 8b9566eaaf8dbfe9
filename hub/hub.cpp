#include "hub/hub.h"

#include <signal.h>

#include "hub/alias.h"
#include "hub/certificate.h"
#include "hub/control.h"
#include "hub/files.h"
#include "hub/http_form.h"
#include "hub/relay.h"
#include "hub/store.h"
#include "hub/waiters.h"
#include "hub/web.h"

namespace ZARO::RelayHub {

namespace {

constexpr char kCookie[] = "ZARORELAY";

WebReply AnswerBatch(Control& control, const WebRequest& request) {
    const std::string before = CookieValue(request.cookies, kCookie);
    std::string session = before;
    WebReply reply{control.Answer(request.body, request.origin, session), "application/json", ""};
    if (session != before) {
        reply.setCookie = std::string(kCookie) + "=" + session + "; Path=/";
        reply.setCookie += request.origin.scheme == "https" ? "; Secure" : "";
    }
    return reply;
}

} // namespace

/// In the order in which they build on each other, so that they go in the reverse order.
struct Hub::Parts {
    explicit Parts(const HubOptions& options)
        : waiters(store, options.hold),
          relay(store, options.visitorAddress,
                [this](std::int64_t device) { waiters.StatusChanged(device); }),
          control(store, waiters,
                  {[this](const TunnelRecord& tunnel) { return relay.IsUp(tunnel.relayPort); },
                   [this](const std::vector<TunnelKey>& gone) { relay.Close(gone); }},
                  options.relayHost),
          alias(
              store, options.aliasTtl,
              [this](const TunnelRecord& tunnel) { return relay.IsUp(tunnel.relayPort); },
              options.relayHost) {}

    UniqueFd lock;
    Store store;
    Waiters waiters;
    Relay relay;
    Control control;
    Alias alias;
    std::unique_ptr<Web> http;
    std::unique_ptr<Web> https;
};

Hub::Hub(HubOptions options) : options_(std::move(options)) {
    if (options_.visitorAddress.empty()) {
        options_.visitorAddress = options_.address;
    }
    parts_ = std::make_unique<Parts>(options_);
}

Hub::~Hub() {
    Stop();
}

bool Hub::Start(std::string& error) {
    // A peer that hangs up must not end the process from within a library's write().
    (void)signal(SIGPIPE, SIG_IGN);
    Relay& relay = parts_->relay;
    const std::string visitorAddress = options_.visitorAddress;
    PortPool pool{options_.firstPort, options_.lastPort, [&relay, visitorAddress](int port) {
                      // A port of ours that is still open is about to be closed.
                      return relay.IsUp(port) || IsPortFree(visitorAddress, port);
                  }};
    error.clear();
    if (!OpenDataFolder(options_.data, FolderUse::Alone, parts_->lock, error) ||
        !parts_->store.Open(options_.data + "/hub.db", std::move(pool), error)) {
        return false;
    }
    const bool relayGood =
        options_.relayPort < 0 ||
        relay.Start(options_.address, options_.relayPort, options_.data + "/relay.key", error);
    return relayGood && StartWeb(error);
}

bool Hub::StartWeb(std::string& error) {
    Parts& parts = *parts_;
    std::map<std::string, WebHandler> pages;
    pages["/Serv.php"] = [&parts](const WebRequest& request) {
        return AnswerBatch(parts.control, request);
    };
    if (options_.httpPort >= 0) {
        parts.http = std::make_unique<Web>(pages, nullptr);
        if (!parts.http->Start(options_.address, options_.httpPort, error)) {
            return false;
        }
    }
    if (options_.httpsPort < 0) {
        return true;
    }
    pages["/alias_update.php"] = [&parts](const WebRequest& request) {
        return WebReply{parts.alias.Update(request.body), "text/plain", ""};
    };
    pages["/alias_query.php"] = [&parts](const WebRequest& request) {
        return WebReply{parts.alias.Query(request.body, request.origin), "text/plain", ""};
    };
    std::set<std::string> names(options_.hosts.begin(), options_.hosts.end());
    names.insert({options_.address, options_.relayHost});
    SslContext tls = MakeTls(options_.data + "/https.pem", ServedNames(names), error);
    if (tls == nullptr) {
        return false;
    }
    parts.https = std::make_unique<Web>(pages, std::move(tls));
    return parts.https->Start(options_.address, options_.httpsPort, error);
}

void Hub::Stop() {
    Web* const webs[] = {parts_->http.get(), parts_->https.get()};
    for (Web* web : webs) {
        if (web != nullptr) {
            web->Close();
        }
    }
    parts_->waiters.Stop();
    for (Web* web : webs) {
        if (web != nullptr) {
            web->Stop();
        }
    }
    parts_->relay.Stop();
}

int Hub::HttpPort() const {
    return parts_->http == nullptr ? 0 : parts_->http->Port();
}

int Hub::HttpsPort() const {
    return parts_->https == nullptr ? 0 : parts_->https->Port();
}

int Hub::RelayPort() const {
    return parts_->relay.Port();
}

} // namespace ZARO::RelayHub
