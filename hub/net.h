/// TCP listeners and the thread that accepts their connections.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>

#include "base/unique_fd.h"
#include "hub/waker.h"

namespace ZARO::RelayHub {

/// How long a listener rests after the process or the system ran out of descriptors or memory.
constexpr auto kAcceptPause = std::chrono::milliseconds(100);

/// Listens on an IP address (IPv4 or IPv6 text) and a port, 0 = any free one, without blocking.
/// False with the reason in `error`.
bool ListenTcp(const std::string& address, int port, UniqueFd& listener, std::string& error);

/// The port that a socket is bound to; 0 when unknown.
int PortOf(int fd);

/// Whether that address and port can be listened on at the moment. Throws system_error when this
/// can't be found out: no descriptor is left, or the address is not this machine's.
bool IsPortFree(const std::string& address, int port);

/// Whether accept() failed with `error` because the system is out of descriptors or memory. A retry
/// at once would only burn CPU time.
bool IsShortage(int error);

void SetNoDelay(int fd);

/// Makes the kernel probe a silent peer after `idle` seconds, then every `interval` seconds, and
/// end the connection when `count` probes get no answer.
void SetKeepAlive(int fd, int idle, int interval, int count);

/// Makes the kernel end the connection when the peer takes no data for that long.
void SetUserTimeOut(int fd, int milliseconds);

/// Address and port of the peer; "" and 0 when unknown.
std::string PeerOf(int fd, int& port);

/// A number for the peer's network, which usually belongs to a single subscriber: the IPv4 address,
/// or the first half of the IPv6 address. 0 when unknown.
std::uint64_t NetworkOf(int fd);

/// Accepts connections on a thread of its own. Running out of descriptors or threads pauses it;
/// nothing but Stop() ends it.
class ThreadAcceptor {
public:
    using MayAccept = std::function<bool()>;
    using OnAccept = std::function<bool(int connection)>;

    /// `unit` names the listener in log lines. While `mayAccept` returns false, connections wait in
    /// the backlog. `onAccept` gets each connection, non-blocking and close-on-exec, and must not
    /// block. It owns the connection once it returns true. If it returns false, since no thread is
    /// left, it gets the same connection again later.
    ThreadAcceptor(const char* unit, MayAccept mayAccept, OnAccept onAccept);
    ~ThreadAcceptor() { Stop(); }

    bool Start(UniqueFd listener, std::string& error);
    /// Returns when the thread is gone and the listener closed. May be called twice.
    void Stop();
    int Port() const { return port_; }

private:
    void Run();
    /// Takes one connection. False when the listener should rest for a moment.
    bool AcceptOne();
    /// Logs a shortage when it begins and when it ends. Null = there is none.
    void SetShortage(const char* reason);

    const char* unit_;
    MayAccept mayAccept_;
    OnAccept onAccept_;
    UniqueFd listener_;
    UniqueFd waiting_; ///< accepted, but there is no thread for it yet
    int port_ = 0;
    bool inShortage_ = false;
    Waker stop_;
    std::thread thread_;
};

} // namespace ZARO::RelayHub
