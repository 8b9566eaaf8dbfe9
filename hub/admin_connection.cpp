#include "hub/admin_connection.h"

#include <utility>

#include <boost/asio/buffer.hpp>
#include <boost/asio/read_until.hpp>
#include <boost/asio/write.hpp>

#include "hub/log.h"

namespace ZARO::RelayHub {

AdminConnection::AdminConnection(Loops& loops, Loop& loop, AdminAnswer answer)
    : loops_(loops), answer_(std::move(answer)), socket_(loop), limit_(loop) {
}

void AdminConnection::Start(UniqueFd fd) {
    asio::post(socket_.get_executor(), [self = shared_from_this(), fd = std::move(fd)]() mutable {
        boost::system::error_code failed;
        self->socket_.assign(asio::local::stream_protocol(), fd.Get(), failed);
        if (failed) {
            Log(Level::Warning, "admin", "can't watch a connection: %s", failed.message().c_str());
            return;
        }
        (void)fd.Release();
        self->Read();
    });
}

void AdminConnection::Close() {
    asio::post(socket_.get_executor(), [self = shared_from_this()] { self->End(); });
}

void AdminConnection::Read() {
    SetLimit();
    asio::async_read_until(
        socket_, asio::dynamic_buffer(request_, kLongestRequest), '\n',
        [self = shared_from_this()](const boost::system::error_code& failed, std::size_t size) {
            if (!failed) {
                self->Take(size - 1);
            } else if (failed != asio::error::operation_aborted) {
                self->Take(self->request_.size()); // half a request, or too long a one
            }
        });
}

void AdminConnection::Take(std::size_t size) {
    (void)limit_.cancel();
    request_.resize(size);
    loops_.Block([self = shared_from_this()] {
        std::string reply = self->answer_(self->request_) + "\n";
        asio::post(self->socket_.get_executor(),
                   [self, text = std::move(reply)]() mutable { self->Write(std::move(text)); });
    });
}

void AdminConnection::Write(std::string reply) {
    reply_ = std::move(reply);
    SetLimit();
    asio::async_write(socket_, asio::buffer(reply_),
                      [self = shared_from_this()](const boost::system::error_code&, std::size_t) {
                          self->End(); // whether the peer has taken it or not
                      });
}

void AdminConnection::SetLimit() {
    limit_.expires_after(kPatience);
    limit_.async_wait([self = shared_from_this()](const boost::system::error_code& stopped) {
        if (!stopped) {
            self->End();
        }
    });
}

void AdminConnection::End() {
    boost::system::error_code ignored; // a close that fails leaves nothing to do
    (void)socket_.close(ignored);
    (void)limit_.cancel();
}

} // namespace ZARO::RelayHub
