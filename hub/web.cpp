#include "hub/web.h"

#include <atomic>
#include <optional>
#include <utility>

#include "hub/log.h"
#include "hub/web_stream.h"

namespace ZARO::RelayHub {

namespace {

/// Registering 256 services with the longest names, all of them escaped, takes 230 KB.
constexpr std::size_t kMaxBody = 256 << 10;
constexpr auto kIdleTime = std::chrono::seconds(10); // between two requests of a connection
constexpr auto kStopTime = std::chrono::seconds(1);  // for the replies under way

/// Connections that were told to end take a moment; a flood must not pile up threads meanwhile.
constexpr std::size_t kLeaving = 64;

/// When the connection that this thread serves became idle; 0 while a whole request is being
/// answered.
thread_local std::atomic<std::int64_t>* tIdleSince = nullptr;

std::int64_t Now() {
    return std::chrono::steady_clock::now().time_since_epoch().count();
}

} // namespace

/// The HTTP library's server without its sockets.
class Web::Protocol : private httplib::Server {
public:
    Protocol(const std::map<std::string, WebHandler>& pages, const char* scheme) : scheme_(scheme) {
        for (const auto& [path, handler] : pages) {
            Add(path, handler);
        }
        set_payload_max_length(kMaxBody);
        // Before a byte of the body is read.
        set_pre_routing_handler([this](const httplib::Request& request, httplib::Response& reply) {
            const int refusal = Refusal(request);
            reply.status = refusal == 0 ? reply.status : refusal;
            return refusal == 0 ? HandlerResponse::Unhandled : HandlerResponse::Handled;
        });
        set_keep_alive_timeout(kIdleTime.count());
        set_exception_handler([](const auto&, httplib::Response& response, const auto&) {
            Log(Level::Error, "web", "a request failed");
            response.status = 500;
        });
    }

    /// Reads one request and answers it. False when the connection can't go on.
    bool Exchange(WebStream& stream) {
        bool closed = false;
        bool clear = false; // whether it is clear where the next request begins
        const bool done = process_request(stream, false, closed, [&](httplib::Request& request) {
            stream.AllowBody();
            request.ranges.clear(); // a thousand of them would make a reply a thousandfold
            clear = Refusal(request) == 0 && !request.has_header("Transfer-Encoding") &&
                    request.get_header_value_count("Content-Length") == 1 &&
                    request.get_header_value<std::uint64_t>("Content-Length") <= kMaxBody;
        });
        return done && !closed && clear;
    }

private:
    /// The status of a request that is refused for its head alone, else 0.
    int Refusal(const httplib::Request& request) const {
        if (request.method != "POST" || pages_.count(request.path) == 0) {
            return 404;
        }
        // The library would take the first apart and inflate the second, to any size.
        return request.is_multipart_form_data() || request.has_header("Content-Encoding") ? 415 : 0;
    }

    void Add(const std::string& path, const WebHandler& handler) {
        pages_.insert(path);
        std::string pattern;
        for (const char c : path) {
            pattern += c == '.' ? std::string("\\.") : std::string(1, c);
        }
        Post(pattern, [this, handler](const httplib::Request& request, httplib::Response& response,
                                      const httplib::ContentReader& content) {
            Answer(handler, request, response, content);
        });
    }

    void Answer(const WebHandler& handler, const httplib::Request& request,
                httplib::Response& response, const httplib::ContentReader& content) const {
        WebRequest question;
        const bool whole = content([&question](const char* data, std::size_t size) {
            if (question.body.size() + size > kMaxBody) {
                return false;
            }
            question.body.append(data, size);
            return true;
        });
        const std::optional<Origin> origin = ParseHost(scheme_, request.get_header_value("Host"));
        if (!whole || !origin) {
            response.status = whole ? 400 : 413;
            return;
        }
        question.origin = *origin;
        question.origin.peer = request.remote_addr;
        *tIdleSince = 0;
        question.cookies = request.get_header_value("Cookie");
        const WebReply reply = handler(question);
        if (!reply.setCookie.empty()) {
            response.set_header("Set-Cookie", reply.setCookie);
        }
        response.set_content(reply.body, reply.type);
    }

    const std::string scheme_;
    std::set<std::string> pages_;
};

class Web::Connection {
public:
    Connection(UniqueFd fd, SSL_CTX* tls) : stream_(std::move(fd), tls) {}

    void Run(Protocol& protocol) {
        tIdleSince = &idleSince_;
        if (!stream_.Begin()) {
            return;
        }
        while (stream_.WaitForRequest(kIdleTime)) {
            if (!protocol.Exchange(stream_)) {
                stream_.Linger();
                return;
            }
            idleSince_ = Now();
        }
    }
    void Shut(bool everything) { stream_.Shut(everything); }
    std::int64_t IdleSince() const { return idleSince_; }
    /// Ends it if it has been idle since `since`. From then on it counts as busy, so that it is not
    /// picked again.
    void DropIfIdle(std::int64_t since) {
        if (idleSince_.compare_exchange_strong(since, 0)) {
            Shut(true);
        }
    }

private:
    std::atomic<std::int64_t> idleSince_{Now()};
    WebStream stream_;
};

Web::Web(const std::map<std::string, WebHandler>& pages, SslContext tls)
    : tls_(std::move(tls)), protocol_(std::make_unique<Protocol>(pages, tls_ ? "https" : "http")),
      acceptor_(
          "web", [this] { return threads_.Count() < kMaxConnections + kLeaving; },
          [this](int connection) {
              return threads_.Start([this, connection] { Serve(UniqueFd(connection)); });
          }) {
}

Web::~Web() {
    Stop();
}

bool Web::Start(const std::string& address, int port, std::string& error) {
    UniqueFd listener;
    return ListenTcp(address, port, listener, error) && acceptor_.Start(std::move(listener), error);
}

void Web::Serve(UniqueFd fd) {
    try {
        Connection connection(std::move(fd), tls_.get());
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            if (closing_) {
                return;
            }
            if (connections_.size() >= kMaxConnections) {
                DropIdle();
            }
            connections_.insert(&connection);
        }
        struct Entry {
            Web& web;
            Connection& connection;
            ~Entry() { web.Forget(&connection); }
        } const entry{*this, connection};
        connection.Run(*protocol_);
    } catch (const std::exception& fault) {
        Log(Level::Error, "web", "a connection failed: %s", fault.what());
    }
}

void Web::DropIdle() {
    Connection* idlest = nullptr;
    std::int64_t longest = 0;
    for (Connection* connection : connections_) {
        const std::int64_t since = connection->IdleSince();
        if (since != 0 && (idlest == nullptr || since < longest)) {
            idlest = connection;
            longest = since;
        }
    }
    if (idlest != nullptr) {
        idlest->DropIfIdle(longest);
    }
}

void Web::Forget(Connection* connection) {
    const std::lock_guard<std::mutex> lock(mutex_);
    connections_.erase(connection);
    allGone_.notify_all();
}

void Web::Close() {
    acceptor_.Stop();
    const std::lock_guard<std::mutex> lock(mutex_);
    closing_ = true;
    for (Connection* connection : connections_) {
        connection->Shut(false);
    }
}

void Web::Stop() {
    Close();
    {
        std::unique_lock<std::mutex> lock(mutex_);
        (void)allGone_.wait_for(lock, kStopTime, [this] { return connections_.empty(); });
        for (Connection* connection : connections_) {
            connection->Shut(true);
        }
    }
    threads_.JoinAll();
}

} // namespace ZARO::RelayHub
