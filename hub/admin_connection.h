/// One connection of the operator's program: a line with a request, a line with the reply.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/steady_timer.hpp>

#include "base/unique_fd.h"
#include "hub/loops.h"

namespace ZARO::RelayHub {

/// The reply to a request, both JSON on one line without its end. Called by workers, several at a
/// time; may block for the store, must not throw.
using AdminAnswer = std::function<std::string(const std::string& request)>;

/// For the thread of its loop; Start() and Close() may be called by any. It lives until the reply
/// is sent, the peer is gone or a time limit is over. `loops` must live until they have stopped.
class AdminConnection : public std::enable_shared_from_this<AdminConnection> {
public:
    static constexpr std::size_t kLongestRequest = 64 << 10; // bytes
    /// For the request to arrive, and for the reply to be taken.
    static constexpr auto kPatience = std::chrono::seconds(10);

    AdminConnection(Loops& loops, Loop& loop, AdminAnswer answer);

    /// Takes the connection over.
    void Start(UniqueFd fd);
    void Close();

private:
    void Read();
    /// Has the first `size` bytes of what was read answered by a worker.
    void Take(std::size_t size);
    void Write(std::string reply);
    /// Ends the connection unless the next step comes in time.
    void SetLimit();
    void End();

    Loops& loops_;
    const AdminAnswer answer_;
    asio::local::stream_protocol::socket socket_;
    asio::steady_timer limit_;
    std::string request_, reply_;
};

} // namespace ZARO::RelayHub
