/// TCP listeners and the thread that accepts their connections.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>

#include "hub/fd.h"

namespace ZARO::RelayHub {

/// How long a listener rests after the process or the system ran out of descriptors or memory.
constexpr auto kAcceptPause = std::chrono::milliseconds(100);

/// Listens on an IP address (IPv4 or IPv6 text) and a port, 0 = any free one, without blocking.
/// False with the reason in `error`.
bool ListenTcp(const std::string& address, int port, Fd& listener, std::string& error);

/// The port a socket is bound to; 0 when it can't be told.
int PortOf(int fd);

/// Whether that address and port can be listened on at the moment. Throws when it can't be told,
/// for want of descriptors or since the address is not this machine's.
bool IsPortFree(const std::string& address, int port);

/// Whether accept() failed with `error` for want of descriptors or memory, so that trying again at
/// once would only burn time.
bool IsShortage(int error);

void SetNoDelay(int fd);

/// Has the kernel probe a silent peer after `idle` seconds, every `interval` seconds, and end the
/// connection when `count` probes get no answer.
void SetKeepAlive(int fd, int idle, int interval, int count);

/// Has the kernel end the connection when the peer takes no data for that long.
void SetUserTimeOut(int fd, int milliseconds);

/// Address and port of the peer, "" and 0 when it can't be told.
std::string PeerOf(int fd, int& port);

/// A number for the network of the peer, whose addresses are all one's own as a rule: an IPv4
/// address, the first half of an IPv6 one. 0 when it can't be told.
std::uint64_t NetworkOf(int fd);

/// `address` as it stands in a URL: an IPv6 address in brackets.
std::string ForUrl(const std::string& address);

/// Accepts connections on a thread of its own. Running out of descriptors or threads pauses it;
/// nothing but Stop() ends it.
class Acceptor {
public:
    using MayAccept = std::function<bool()>;
    using OnAccept = std::function<bool(int connection)>;

    /// `unit` names the listener in log lines. While `mayAccept` says no, connections wait in the
    /// backlog. `onAccept` gets each connection, non-blocking and close-on-exec, and must not
    /// block; it says no when no thread is left, is asked again later, and owns the connection only
    /// when it says yes.
    Acceptor(const char* unit, MayAccept mayAccept, OnAccept onAccept);
    ~Acceptor() { Stop(); }

    bool Start(Fd listener, std::string& error);
    /// Returns when the thread is gone and the listener closed. May be called twice.
    void Stop();
    int Port() const { return port_; }

private:
    void Run();
    /// Takes one connection. False when the listener should rest for a moment.
    bool AcceptOne();
    /// Tells of a shortage when it begins and when it ends.
    void SetShortage(const char* reason);

    const char* unit_;
    MayAccept mayAccept_;
    OnAccept onAccept_;
    Fd listener_;
    Fd waiting_; ///< accepted, while there is no thread for it
    int port_ = 0;
    bool inShortage_ = false;
    Waker stop_;
    std::thread thread_;
};

} // namespace ZARO::RelayHub
