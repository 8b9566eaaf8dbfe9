/// One HTTP or HTTPS listener. Its connections live on the event loops and cost no thread: a slow,
/// silent or flooding client costs its own memory for a bounded time and nothing else.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

#include "hub/acceptor.h"
#include "hub/loops.h"
#include "hub/store_devices.h"
#include "hub/web_exchange.h"
#include "hub/web_stream.h"

namespace ZARO::RelayHub {

struct WebServer;

/// Holds a bounded number of connections; one more ends the one that has gone longest without a
/// whole request. A request that is being answered is never ended for that.
class Web {
public:
    /// A held request of every device, and room for the others.
    static constexpr std::size_t kMaxConnections = kMaxDevices + 256;

    /// Without `tls` it speaks plain HTTP. `loops` must outlive it.
    Web(Loops& loops, WebPages pages, SslContext tls, std::size_t maxConnections = kMaxConnections);
    ~Web();

    bool Start(const std::string& address, int port, std::string& error);
    /// No further connection is accepted and no further request read. Returns at once; replies
    /// under way still go out, and say that the connection ends.
    void Close();
    /// Close(), then waits until every connection is gone: at most two seconds. May be called
    /// twice.
    void Stop();
    int Port() const;

private:
    Loops& loops_;
    const std::shared_ptr<WebServer> server_;
    std::shared_ptr<Acceptor> acceptor_;
};

} // namespace ZARO::RelayHub
