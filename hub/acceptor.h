/// Accepts the connections of one listener on an event loop.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>

#include "base/unique_fd.h"
#include "hub/loops.h"

namespace ZARO::RelayHub {

/// Running out of descriptors or memory pauses it; nothing but Stop() ends it. For the thread of
/// its loop, except where a method says otherwise.
class Acceptor : public std::enable_shared_from_this<Acceptor> {
public:
    using MayAccept = std::function<bool()>;
    using OnAccept = std::function<void(UniqueFd connection)>;

    /// `unit` names the listener in log lines. While `mayAccept` returns false, connections wait in
    /// the backlog; it is asked again after Resume() and ten times per second. `onAccept` gets each
    /// connection, non-blocking and close-on-exec. Both are called on the loop's thread.
    Acceptor(const char* unit, Loop& loop, MayAccept mayAccept, OnAccept onAccept);

    /// Takes over the listening socket. May be called from any thread, once.
    void Start(UniqueFd listener);
    /// Looks again whether it may accept. Any thread may call it.
    void Resume();
    /// Closes the listener soon, on the loop; nothing is accepted from then on. Any thread may call
    /// it.
    void Stop();
    /// The port, from Start() on. Any thread may call it.
    int Port() const { return port_; }

private:
    void Wait();
    void AcceptAll();
    void Rest();
    /// Logs a shortage when it begins and when it ends. Null = there is none.
    void SetShortage(const char* reason);

    const char* unit_;
    Loop& loop_;
    const MayAccept mayAccept_;
    const OnAccept onAccept_;
    asio::posix::stream_descriptor listener_;
    asio::steady_timer rest_;
    int port_ = 0;
    bool waiting_ = false; ///< for a connection
    bool resting_ = false;
    bool inShortage_ = false;
};

} // namespace ZARO::RelayHub
