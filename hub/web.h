/// One HTTP or HTTPS listener. The parsing is the HTTP library's; accepting, reading and writing
/// are done here, so that a slow, silent or flooding client costs a thread for a bounded time and
/// nothing else.
#pragma once

#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include <openssl/ssl.h>

#include "base/unique_fd.h"
#include "hub/net.h"
#include "hub/origin.h"
#include "hub/store.h"
#include "hub/threads.h"

namespace ZARO::RelayHub {

struct WebRequest {
    std::string body;    ///< at most 256 KiB
    std::string cookies; ///< the Cookie header
    Origin origin;
};

struct WebReply {
    std::string body;
    std::string type;      ///< MIME type
    std::string setCookie; ///< the Set-Cookie header, or ""
};

using WebHandler = std::function<WebReply(const WebRequest&)>;

struct SslDeleter {
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
    void operator()(SSL* ssl) const { SSL_free(ssl); }
};
using SslContext = std::unique_ptr<SSL_CTX, SslDeleter>;

/// Runs each connection on a thread of its own, at most kMaxConnections at a time; one more ends
/// the one that has gone longest without a whole request. Handlers run on those threads, several at
/// a time, and may block.
class Web {
public:
    /// A held request of every device, and room for the others.
    static constexpr std::size_t kMaxConnections = kMaxDevices + 256;

    /// `pages` are the paths that take a POST. Without `tls` it speaks plain HTTP.
    Web(const std::map<std::string, WebHandler>& pages, SslContext tls);
    ~Web();

    bool Start(const std::string& address, int port, std::string& error);
    /// No further connection is accepted and no further request read. Returns at once; replies
    /// under way still go out.
    void Close();
    /// Close(), then waits until every connection is gone: at most a second, plus the time that
    /// handlers need. May be called twice.
    void Stop();
    int Port() const { return acceptor_.Port(); }

private:
    class Protocol;
    class Connection;

    void Serve(UniqueFd fd);
    /// Ends the connection that has been idle longest. Under the lock.
    void DropIdle();
    void Forget(Connection* connection);

    const SslContext tls_;
    std::unique_ptr<Protocol> protocol_;
    std::mutex mutex_; ///< guards the two below
    std::set<Connection*> connections_;
    bool closing_ = false;
    std::condition_variable allGone_;
    ThreadSet threads_;
    ThreadAcceptor acceptor_;
};

} // namespace ZARO::RelayHub
