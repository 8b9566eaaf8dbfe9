/// One HTTPS connection of a simulated device.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include <boost/asio/ssl/stream.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/http/message.hpp>

#include "bench/fleet_world.h"

namespace ZARO::Fleet {

/// For the loop's thread. Owned by shared_ptr: it lives until its last handler has run.
class HttpsLink : public std::enable_shared_from_this<HttpsLink> {
public:
    using Reply = boost::beast::http::response<boost::beast::http::string_body>;
    using Request = boost::beast::http::request<boost::beast::http::string_body>;

    /// `sent` is called when a request has gone out, `answered` with its reply. A null reply means
    /// that the connection is lost; nothing is called after that.
    HttpsLink(World& world, unsigned device, std::function<void()> sent,
              std::function<void(const Reply*)> answered);

    /// Connects, and sends the first request.
    void Connect(const tcp::endpoint& server, Request request);
    /// Sends a further request, after the reply to the one before.
    void Send(Request request);
    /// Ends the connection; nothing is called any more.
    void Close();
    /// Whether the server took the connection.
    bool WasTaken() const { return taken_; }

private:
    using Error = boost::system::error_code;

    /// Whether the step before went well. Reports the loss when it did not.
    bool Good(const Error& error);
    void Shake();
    void Read();

    asio::ssl::stream<tcp::socket> stream_;
    std::function<void()> sent_;
    std::function<void(const Reply*)> answered_; ///< empty when it is closed
    boost::beast::flat_buffer buffer_;
    Request request_;
    Reply reply_;
    bool taken_ = false;
};

} // namespace ZARO::Fleet
