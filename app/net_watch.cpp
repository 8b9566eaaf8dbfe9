#include "app/net_watch.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "daemon/log.h"

namespace ZARO::Relay::app {

NetWatch::NetWatch()
    : fd_(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE)) {
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_IFADDR |
                        RTMGRP_IPV6_ROUTE;
    if (fd_ >= FD_SETSIZE ||
        (fd_ >= 0 && bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)) {
        close(fd_);
        fd_ = -1;
    }
    if (fd_ < 0) {
        RELAY_LOG(4, "network changes can't be watched, time-outs have to do");
    }
}

NetWatch::~NetWatch() {
    if (fd_ >= 0) {
        close(fd_);
    }
}

bool NetWatch::Drain() {
    bool any = false;
    char buffer[8192];
    for (;;) {
        const ssize_t length = recv(fd_, buffer, sizeof buffer, MSG_DONTWAIT);
        if (length > 0 || (length < 0 && errno == ENOBUFS)) {
            any = true;
        } else if (length == 0 || errno != EINTR) {
            return any;
        }
    }
}

} // namespace ZARO::Relay::app
