#include "app/daemon/net_watch.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>

#include <cerrno>

#include <zarorelayd/daemon.h>

#include "base/log.h"

namespace ZARO::Relay::app {

NetWatch::NetWatch()
    : fd_(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE)) {
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_IFADDR |
                        RTMGRP_IPV6_ROUTE;
    if (fd_.Get() >= FD_SETSIZE ||
        (fd_.IsOpen() &&
         bind(fd_.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)) {
        (void)fd_.Close();
    }
    if (!fd_.IsOpen()) {
        RELAY_LOG(log::Warning, "network changes can't be watched, time-outs have to do");
    }
}

bool NetWatch::Drain() {
    bool any = false;
    char buffer[8192];
    for (;;) {
        const ssize_t length = recv(fd_.Get(), buffer, sizeof buffer, MSG_DONTWAIT);
        if (length > 0 || (length < 0 && errno == ENOBUFS)) {
            any = true;
        } else if (length == 0 || errno != EINTR) {
            return any;
        }
    }
}

std::set<std::string> OwnAddresses() {
    std::set<std::string> found;
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) {
        return found;
    }
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        const int family = entry->ifa_addr != nullptr ? entry->ifa_addr->sa_family : AF_UNSPEC;
        const auto* v4 = reinterpret_cast<const sockaddr_in*>(entry->ifa_addr);
        const auto* v6 = reinterpret_cast<const sockaddr_in6*>(entry->ifa_addr);
        char text[INET6_ADDRSTRLEN] = "";
        if (family == AF_INET) {
            (void)inet_ntop(family, &v4->sin_addr, text, sizeof text); // there is room
        } else if (family == AF_INET6 && !IN6_IS_ADDR_LINKLOCAL(&v6->sin6_addr)) {
            (void)inet_ntop(family, &v6->sin6_addr, text, sizeof text);
        }
        if (*text != '\0') {
            found.insert(std::string(entry->ifa_name) + " " + text);
        }
    }
    freeifaddrs(list);
    return found;
}

} // namespace ZARO::Relay::app
