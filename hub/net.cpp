#include "hub/net.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <system_error>
#include <utility>

#include "base/names.h"

namespace ZARO::RelayHub {

namespace {

struct AddressDeleter {
    void operator()(addrinfo* info) const { freeaddrinfo(info); }
};
using AddressInfo = std::unique_ptr<addrinfo, AddressDeleter>;

AddressInfo ToAddress(const std::string& address, int port) {
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | AI_PASSIVE;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(address.c_str(), std::to_string(port).c_str(), &hints, &found) != 0) {
        return nullptr;
    }
    return AddressInfo(found);
}

void SetOption(int fd, int level, int option, int value) {
    // Tuning only: a socket that refuses it works all the same.
    (void)setsockopt(fd, level, option, &value, sizeof value);
}

/// A bound socket; empty, with errno set, when the address can't be had.
UniqueFd BindTcp(const addrinfo& where) {
    UniqueFd fd(socket(where.ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd.IsOpen()) {
        return fd;
    }
    SetOption(fd.Get(), SOL_SOCKET, SO_REUSEADDR, 1);
    if (where.ai_family == AF_INET6) {
        SetOption(fd.Get(), IPPROTO_IPV6, IPV6_V6ONLY, 0);
    }
    if (bind(fd.Get(), where.ai_addr, where.ai_addrlen) != 0) {
        const int reason = errno;
        (void)fd.Close();
        errno = reason;
    }
    return fd;
}

} // namespace

bool ListenTcp(const std::string& address, int port, UniqueFd& listener, std::string& error) {
    const std::string where = ForUrl(address) + ":" + std::to_string(port);
    const AddressInfo info = ToAddress(address, port);
    if (info == nullptr) {
        error = "can't listen on " + where + ": not an IP address";
        return false;
    }
    UniqueFd fd = BindTcp(*info);
    if (!fd.IsOpen() || listen(fd.Get(), SOMAXCONN) != 0) {
        error = "can't listen on " + where + ": " + strerror(errno);
        return false;
    }
    listener = std::move(fd);
    return true;
}

int PortOf(int fd) {
    sockaddr_storage bound{};
    socklen_t size = sizeof bound;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &size) != 0) {
        return 0;
    }
    return ntohs(bound.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6*>(&bound)->sin6_port
                                             : reinterpret_cast<sockaddr_in*>(&bound)->sin_port);
}

bool IsPortFree(const std::string& address, int port) {
    const AddressInfo info = ToAddress(address, port);
    const UniqueFd fd = info == nullptr ? UniqueFd() : BindTcp(*info);
    if (fd.IsOpen() && listen(fd.Get(), 1) == 0) {
        return true;
    }
    if (errno != EADDRINUSE && errno != EACCES) {
        throw std::system_error(errno, std::generic_category(), "can't try port");
    }
    return false;
}

bool IsShortage(int error) {
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

void SetNoDelay(int fd) {
    SetOption(fd, IPPROTO_TCP, TCP_NODELAY, 1);
}

void SetKeepAlive(int fd, int idle, int interval, int count) {
    SetOption(fd, SOL_SOCKET, SO_KEEPALIVE, 1);
    SetOption(fd, IPPROTO_TCP, TCP_KEEPIDLE, idle);
    SetOption(fd, IPPROTO_TCP, TCP_KEEPINTVL, interval);
    SetOption(fd, IPPROTO_TCP, TCP_KEEPCNT, count);
}

void SetUserTimeOut(int fd, int milliseconds) {
    SetOption(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, milliseconds);
}

std::string PeerOf(int fd, int& port) {
    sockaddr_storage peer{};
    socklen_t size = sizeof peer;
    char host[NI_MAXHOST] = "";
    char service[NI_MAXSERV] = "0";
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &size) == 0) {
        (void)getnameinfo(reinterpret_cast<sockaddr*>(&peer), size, host, sizeof host, service,
                          sizeof service, NI_NUMERICHOST | NI_NUMERICSERV);
    }
    port = atoi(service);
    return host;
}

std::uint64_t NetworkOf(int fd) {
    sockaddr_storage peer{};
    socklen_t size = sizeof peer;
    std::uint64_t network = 0;
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &size) != 0) {
        return network;
    }
    if (peer.ss_family == AF_INET6) {
        const auto* bytes = reinterpret_cast<sockaddr_in6*>(&peer)->sin6_addr.s6_addr;
        const bool mapped =
            IN6_IS_ADDR_V4MAPPED(&reinterpret_cast<sockaddr_in6*>(&peer)->sin6_addr);
        memcpy(&network, mapped ? bytes + 8 : bytes, sizeof network);
    } else {
        network = reinterpret_cast<sockaddr_in*>(&peer)->sin_addr.s_addr;
    }
    return network;
}

} // namespace ZARO::RelayHub
