/// One connection of a web client: reads requests, has them answered, writes the replies.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include <boost/asio/steady_timer.hpp>

#include "base/unique_fd.h"
#include "hub/loops.h"
#include "hub/web_clients.h"
#include "hub/web_exchange.h"
#include "hub/web_parser.h"
#include "hub/web_stream.h"

namespace ZARO::RelayHub {

/// What the connections of one listener share. It outlives them.
struct WebServer {
    Loops& loops;
    const WebPages pages;
    const SslContext tls; ///< null = plain
    WebClients clients;
};

/// Lives on one loop; its public methods may be called from any thread.
class WebConnection : public std::enable_shared_from_this<WebConnection> {
public:
    WebConnection(std::shared_ptr<WebServer> server, Loop& loop, UniqueFd fd);
    WebConnection(const WebConnection&) = delete;
    WebConnection& operator=(const WebConnection&) = delete;
    ~WebConnection();

    /// Begins, unless the listener is closed. Once only.
    void Start();
    /// The reply to the request that is being answered.
    void Answer(WebReply reply);
    /// Ends it; without `atOnce` a request that is being answered gets its reply first.
    void End(bool atOnce);

private:
    using Clock = std::chrono::steady_clock;

    enum class State {
        Handshaking,
        Reading,   ///< waits for a request or is amid one
        Answering, ///< the reply is yet to come
        Replying,
        Lingering, ///< the peer gets time to take the reply
        Closed,
    };

    void Proceed();
    void Handshake();
    void Receive();
    void Take(const char* data, std::size_t size);
    void ParseInput();
    /// The head of a request is there. False when the connection ended.
    bool AllowBody();
    void Dispatch();
    void Refuse(int status);
    void Send();
    void Sent();
    void ReadNext();
    void Linger();
    void PeerEnded(WebStream::Result how);
    void Close();
    void WaitFor(WebStream::Result want);
    /// Closes the connection when `time` passes before the next call.
    void SetDeadline(Clock::duration time);
    void ClearDeadline();

    const std::shared_ptr<WebServer> server_;
    Loop& loop_;
    WebStream stream_;
    asio::steady_timer timer_;
    Clock::time_point deadline_;
    State state_ = State::Handshaking;
    std::optional<WebClients::Place> place_;
    bool waitsToRead_ = false;
    bool waitsToWrite_ = false;
    bool peerEnded_ = false; ///< it sends no more
    bool goesOn_ = false;    ///< with another request after this one
    std::string input_;      ///< read but not parsed
    std::string output_;
    std::size_t sent_ = 0; ///< of the output
    std::size_t lingerBudget_ = 0;
    std::unique_ptr<WebParser> parser_; ///< while a request is read
    std::weak_ptr<WebExchange> exchange_;
};

} // namespace ZARO::RelayHub
