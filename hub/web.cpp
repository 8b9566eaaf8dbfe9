#include "hub/web.h"

#include <utility>

#include "hub/net.h"
#include "hub/web_connection.h"

namespace ZARO::RelayHub {

namespace {

constexpr auto kStopTime = std::chrono::seconds(1); // for the replies under way

/// Keeps the memory of a client small.
SslContext Slim(SslContext tls) {
    if (tls != nullptr) {
        // Clients resume with tickets, which they keep themselves.
        (void)SSL_CTX_set_session_cache_mode(tls.get(), SSL_SESS_CACHE_OFF);
        (void)SSL_CTX_set_num_tickets(tls.get(), 1);
    }
    return tls;
}

} // namespace

Web::Web(Loops& loops, WebPages pages, SslContext tls, std::size_t maxConnections)
    : loops_(loops), server_(new WebServer{loops, std::move(pages), Slim(std::move(tls)),
                                           WebClients(maxConnections)}) {
}

Web::~Web() {
    Stop();
}

bool Web::Start(const std::string& address, int port, std::string& error) {
    UniqueFd listener;
    if (!ListenTcp(address, port, listener, error)) {
        return false;
    }
    acceptor_ = std::make_shared<Acceptor>(
        "web", loops_.Next(), [server = server_] { return server->clients.MayAccept(); },
        [server = server_](UniqueFd fd) {
            std::make_shared<WebConnection>(server, server->loops.Next(), std::move(fd))->Start();
        });
    acceptor_->Start(std::move(listener));
    return true;
}

void Web::Close() {
    if (acceptor_ != nullptr) {
        acceptor_->Stop();
    }
    server_->clients.Close();
    for (const auto& connection : server_->clients.All()) {
        if (connection != nullptr) {
            connection->End(false);
        }
    }
}

void Web::Stop() {
    Close();
    if (!server_->clients.WaitUntilEmpty(kStopTime)) {
        for (const auto& connection : server_->clients.All()) {
            if (connection != nullptr) {
                connection->End(true);
            }
        }
        (void)server_->clients.WaitUntilEmpty(kStopTime);
    }
}

int Web::Port() const {
    return acceptor_ == nullptr ? 0 : acceptor_->Port();
}

} // namespace ZARO::RelayHub
