#include "bench/fleet_link.h"

#include <utility>

#include <boost/beast/http/read.hpp>
#include <boost/beast/http/write.hpp>

namespace ZARO::Fleet {

namespace http = boost::beast::http;

HttpsLink::HttpsLink(World& world, unsigned device, std::function<void()> sent,
                     std::function<void(const Reply*)> answered)
    : stream_(world.loop, world.tls), sent_(std::move(sent)), answered_(std::move(answered)) {
    world.Open(stream_.next_layer(), device);
}

void HttpsLink::Connect(const tcp::endpoint& server, Request request) {
    request_ = std::move(request);
    stream_.next_layer().async_connect(server, [self = shared_from_this()](const Error& error) {
        if (self->Good(error)) {
            self->taken_ = true;
            self->Shake();
        }
    });
}

void HttpsLink::Shake() {
    stream_.async_handshake(asio::ssl::stream_base::client,
                            [self = shared_from_this()](const Error& error) {
                                if (self->Good(error)) {
                                    self->Send(std::move(self->request_));
                                }
                            });
}

void HttpsLink::Send(Request request) {
    request_ = std::move(request);
    http::async_write(stream_, request_,
                      [self = shared_from_this()](const Error& error, std::size_t) {
                          if (self->Good(error)) {
                              self->sent_();
                              self->Read();
                          }
                      });
}

void HttpsLink::Read() {
    reply_ = {};
    http::async_read(stream_, buffer_, reply_,
                     [self = shared_from_this()](const Error& error, std::size_t) {
                         if (self->Good(error)) {
                             const auto answered = self->answered_;
                             answered(&self->reply_);
                         }
                     });
}

bool HttpsLink::Good(const Error& error) {
    if (!answered_) {
        return false;
    }
    if (error) {
        const auto answered = std::exchange(answered_, nullptr);
        Close();
        answered(nullptr);
    }
    return !error;
}

void HttpsLink::Close() {
    answered_ = nullptr;
    Error ignored; // it ends in any case
    (void)stream_.next_layer().close(ignored);
}

} // namespace ZARO::Fleet
