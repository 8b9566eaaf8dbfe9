#include "hub/web_connection.h"

#include <array>
#include <optional>
#include <utility>

#include "hub/log.h"

namespace ZARO::RelayHub {

namespace {

using std::chrono::seconds;

/// From the first byte of a request to its last one; also for a TLS handshake.
constexpr auto kRequestTime = seconds(15);
constexpr auto kIdleTime = seconds(10); // between two requests of a connection
constexpr auto kReplyTime = seconds(10);
constexpr auto kLingerTime = seconds(2);

constexpr int kReadsAtOnce = 4; // then the loop serves others

/// What a client may send ahead while its request is answered; the rest waits in the network.
constexpr std::size_t kMaxAhead = 16 << 10;

/// A request that is refused is read off up to here, so that the peer sees the refusal.
constexpr std::size_t kLingerBytes = 4 << 20;

constexpr int kBadRequest = 400;

const char* ReasonFor(int status) {
    switch (status) {
    case 400:
        return "Bad Request";
    case 404:
        return "Not Found";
    case 413:
        return "Payload Too Large";
    case 415:
        return "Unsupported Media Type";
    default:
        return "OK";
    }
}

std::string HeadOf(int status, std::size_t size, bool goesOn) {
    return "HTTP/1.1 " + std::to_string(status) + " " + ReasonFor(status) +
           "\r\nContent-Length: " + std::to_string(size) +
           (goesOn ? "\r\nKeep-Alive: timeout=" + std::to_string(kIdleTime.count())
                   : std::string("\r\nConnection: close")) +
           "\r\n";
}

} // namespace

WebConnection::WebConnection(std::shared_ptr<WebServer> server, Loop& loop, UniqueFd fd)
    : server_(std::move(server)), loop_(loop), stream_(loop, std::move(fd), server_->tls.get()),
      timer_(loop) {
}

WebConnection::~WebConnection() {
    if (place_) { // the loop ended before the connection did
        server_->clients.Remove(*place_);
    }
}

void WebConnection::Start() {
    std::shared_ptr<WebConnection> toEnd;
    const bool added = server_->clients.Add(shared_from_this(), place_, toEnd);
    if (toEnd != nullptr) {
        toEnd->End(true);
    }
    if (added) {
        asio::post(loop_, [self = shared_from_this()] {
            if (self->state_ != State::Closed) {
                self->SetDeadline(kRequestTime);
                self->Handshake();
            }
        });
    }
}

void WebConnection::Answer(WebReply reply) {
    asio::post(loop_, [self = shared_from_this(), reply = std::move(reply)] {
        if (self->state_ != State::Answering) {
            return; // it was closed
        }
        self->goesOn_ = self->goesOn_ && !self->server_->clients.IsClosed();
        self->output_ = HeadOf(200, reply.body.size(), self->goesOn_) +
                        "Content-Type: " + reply.type + "\r\n" +
                        (reply.setCookie.empty() ? "" : "Set-Cookie: " + reply.setCookie + "\r\n") +
                        "\r\n" + reply.body;
        self->Send();
    });
}

void WebConnection::End(bool atOnce) {
    asio::post(loop_, [self = shared_from_this(), atOnce] {
        const bool owesReply = self->state_ == State::Answering || self->state_ == State::Replying;
        if (atOnce || !owesReply) {
            self->Close();
        }
    });
}

void WebConnection::Proceed() {
    if (state_ == State::Handshaking) {
        Handshake();
        return;
    }
    if (state_ == State::Replying) {
        Send();
    }
    if (state_ != State::Closed) {
        Receive();
    }
}

void WebConnection::Handshake() {
    const WebStream::Result result = stream_.Begin();
    if (result == WebStream::Result::Done) {
        ReadNext();
    } else {
        WaitFor(result);
    }
}

void WebConnection::ReadNext() {
    state_ = State::Reading;
    SetDeadline(kIdleTime);
    ParseInput();
    if (state_ != State::Closed) {
        Receive();
    }
}

void WebConnection::Receive() {
    thread_local std::array<char, WebStream::kRecord> block;
    for (int i = 0; i < kReadsAtOnce && !waitsToRead_ && !peerEnded_; ++i) {
        const bool isAhead = state_ == State::Answering || state_ == State::Replying;
        if (state_ == State::Closed || (isAhead && input_.size() >= kMaxAhead)) {
            return;
        }
        std::size_t got = 0;
        const WebStream::Result result = stream_.Read(block.data(), block.size(), got);
        if (result == WebStream::Result::Done) {
            Take(block.data(), got);
        } else if (result == WebStream::Result::WantRead ||
                   result == WebStream::Result::WantWrite) {
            WaitFor(result);
            return;
        } else {
            PeerEnded(result);
            return;
        }
    }
    if (state_ != State::Closed && !peerEnded_) {
        WaitFor(WebStream::Result::WantRead);
    }
}

void WebConnection::Take(const char* data, std::size_t size) {
    if (state_ == State::Lingering) {
        if (size >= lingerBudget_) {
            Close();
            return;
        }
        lingerBudget_ -= size;
        return;
    }
    input_.append(data, size);
    ParseInput();
}

void WebConnection::ParseInput() {
    while (state_ == State::Reading && (!input_.empty() || parser_ != nullptr)) {
        if (parser_ == nullptr) {
            parser_ = std::make_unique<WebParser>(server_->pages);
            SetDeadline(kRequestTime);
        }
        switch (parser_->Take(input_)) {
        case WebParser::Progress::More:
            return;
        case WebParser::Progress::Head:
            if (!AllowBody()) {
                return;
            }
            break;
        case WebParser::Progress::Whole:
            Dispatch();
            return;
        case WebParser::Progress::Refused:
            Refuse(parser_->Refusal());
            return;
        case WebParser::Progress::Endless:
            Close();
            return;
        }
    }
}

bool WebConnection::AllowBody() {
    constexpr char kContinue[] = "HTTP/1.1 100 Continue\r\n\r\n";
    constexpr std::size_t kSize = sizeof kContinue - 1;
    std::size_t sent = 0;
    // There is room for a few bytes, unless the client takes none of its replies.
    if (parser_->ExpectsContinue() &&
        (stream_.Write(kContinue, kSize, sent) != WebStream::Result::Done || sent != kSize)) {
        Close();
        return false;
    }
    return true;
}

void WebConnection::Dispatch() {
    const bool isSecure = server_->tls != nullptr;
    std::optional<Origin> origin = ParseHost(isSecure ? "https" : "http", parser_->Header("Host"));
    if (!origin) {
        Refuse(kBadRequest);
        return;
    }
    origin->peer = stream_.Peer();
    origin->network = stream_.Network();
    WebRequest request{parser_->TakeBody(), parser_->Header("Cookie"), std::move(*origin)};
    goesOn_ = parser_->MayGoOn();
    const WebHandler& handler = parser_->Handler();
    parser_.reset();
    state_ = State::Answering;
    server_->clients.SetBusy(*place_);
    ClearDeadline();
    auto exchange = std::make_shared<WebExchange>(shared_from_this(), std::move(request));
    exchange_ = exchange;
    server_->loops.Block([&handler, exchange = std::move(exchange)] {
        handler(exchange);
        exchange->DropRequest();
    });
}

void WebConnection::Refuse(int status) {
    parser_.reset();
    goesOn_ = false;
    output_ = HeadOf(status, 0, false) + "\r\n";
    Send();
}

void WebConnection::Send() {
    if (state_ != State::Replying) {
        state_ = State::Replying;
        sent_ = 0;
        SetDeadline(kReplyTime);
    }
    while (sent_ < output_.size()) {
        std::size_t count = 0;
        const WebStream::Result result =
            stream_.Write(output_.data() + sent_, output_.size() - sent_, count);
        if (result != WebStream::Result::Done) {
            WaitFor(result);
            return;
        }
        sent_ += count;
    }
    Sent();
}

void WebConnection::Sent() {
    output_ = std::string();
    if (peerEnded_ || (!goesOn_ && server_->clients.IsClosed())) {
        Close();
    } else if (goesOn_) {
        server_->clients.SetIdle(*place_);
        ReadNext();
    } else {
        Linger();
    }
}

void WebConnection::Linger() {
    state_ = State::Lingering;
    stream_.EndWriting();
    input_ = std::string();
    lingerBudget_ = kLingerBytes;
    SetDeadline(kLingerTime);
    Receive();
}

void WebConnection::PeerEnded(WebStream::Result how) {
    peerEnded_ = true;
    const std::shared_ptr<WebExchange> exchange = exchange_.lock();
    // It may only have ended its side, and still wait for a reply that is coming soon.
    const bool awaitsReply = how == WebStream::Result::Ended && state_ == State::Replying;
    // Once nobody holds the exchange, the reply or the end is on its way here.
    const bool isAnswered = how == WebStream::Result::Ended && state_ == State::Answering &&
                            (exchange == nullptr || !exchange->HangUp());
    if (!awaitsReply && !isAnswered) {
        Close();
    }
}

void WebConnection::Close() {
    if (state_ == State::Closed) {
        return;
    }
    state_ = State::Closed;
    ClearDeadline();
    stream_.Close();
    parser_.reset();
    input_ = std::string();
    if (place_) {
        server_->clients.Remove(*place_);
        place_.reset();
    }
    if (const std::shared_ptr<WebExchange> exchange = exchange_.lock()) {
        (void)exchange->HangUp();
    }
}

void WebConnection::WaitFor(WebStream::Result want) {
    if (want != WebStream::Result::WantRead && want != WebStream::Result::WantWrite) {
        Close();
        return;
    }
    bool WebConnection::*const waits = want == WebStream::Result::WantRead
                                           ? &WebConnection::waitsToRead_
                                           : &WebConnection::waitsToWrite_;
    if (this->*waits) {
        return;
    }
    this->*waits = true;
    stream_.Wait(want, [self = shared_from_this(), waits] {
        (*self).*waits = false;
        self->Proceed();
    });
}

void WebConnection::SetDeadline(Clock::duration time) {
    deadline_ = Clock::now() + time;
    (void)timer_.expires_at(deadline_);
    timer_.async_wait([self = shared_from_this()](const boost::system::error_code& cancelled) {
        // It may have been set again after it had expired.
        if (!cancelled && Clock::now() >= self->deadline_) {
            self->Close();
        }
    });
}

void WebConnection::ClearDeadline() {
    deadline_ = Clock::time_point::max();
    (void)timer_.cancel();
}

} // namespace ZARO::RelayHub
