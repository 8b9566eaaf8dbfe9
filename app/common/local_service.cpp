#include "app/common/local_service.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>

#include "base/names.h"
#include "base/unique_fd.h"

namespace ZARO::Relay::app {

namespace {

constexpr int kProbeMilliseconds = 20;

/// Tries a loopback address, where a connection is accepted or refused almost at once.
Reachable ProbeAddress(int family, const sockaddr* address, socklen_t length) {
    const UniqueFd fd(socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd.IsOpen()) {
        return Reachable::Unknown;
    }
    int error = connect(fd.Get(), address, length) == 0 ? 0 : errno;
    if (error == EINPROGRESS) {
        pollfd entry = {fd.Get(), POLLOUT, 0};
        socklen_t size = sizeof error;
        if (poll(&entry, 1, kProbeMilliseconds) == 1) {
            (void)getsockopt(fd.Get(), SOL_SOCKET, SO_ERROR, &error, &size);
        } // else still in progress
    }
    if (error == 0) {
        return Reachable::Yes;
    }
    return error == ECONNREFUSED ? Reachable::Refuses : Reachable::Unknown;
}

} // namespace

Reachable ProbeLocalPort(int port) {
    if (!IsPort(port)) {
        return Reachable::Unknown;
    }
    sockaddr_in v4 = {};
    v4.sin_family = AF_INET;
    v4.sin_port = htons(static_cast<uint16_t>(port));
    v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const Reachable overV4 =
        ProbeAddress(AF_INET, reinterpret_cast<const sockaddr*>(&v4), sizeof v4);
    if (overV4 == Reachable::Yes) {
        return overV4;
    }
    sockaddr_in6 v6 = {};
    v6.sin6_family = AF_INET6;
    v6.sin6_port = htons(static_cast<uint16_t>(port));
    v6.sin6_addr = in6addr_loopback;
    const Reachable overV6 =
        ProbeAddress(AF_INET6, reinterpret_cast<const sockaddr*>(&v6), sizeof v6);
    return overV6 == Reachable::Yes ? overV6 : overV4;
}

const char* ReachabilityWord(Reachable reachable) {
    switch (reachable) {
    case Reachable::Yes:
        return "reachable";
    case Reachable::Refuses:
        return "refused";
    case Reachable::Unknown:
        break;
    }
    return "unknown";
}

} // namespace ZARO::Relay::app
