/// Both ends of what a tunnel carries: a device's local service and a visitor.
#pragma once

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <thread>

#include "tests/support/process.h"

inline sockaddr_in Loopback(int port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

/// A stream socket.
struct Socket : NoCopy {
    explicit Socket(int family) : fd(socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0)) {}
    ~Socket() { close(fd); }

    const int fd;
};

/// Listens on 127.0.0.1, and accepts nothing by itself.
struct Listener : Socket {
    /// On the wanted port, or any free one; `port` stays -1 when another process has it.
    explicit Listener(int wanted = 0) : Socket(AF_INET) {
        sockaddr_in address = Loopback(wanted);
        socklen_t size = sizeof address;
        auto* const generic = reinterpret_cast<sockaddr*>(&address);
        const int reuse = wanted != 0; // past old connections, as servers do
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
        if (bind(fd, generic, size) == 0 && listen(fd, SOMAXCONN) == 0) {
            getsockname(fd, generic, &size);
            port = ntohs(address.sin_port);
        }
    }

    int port = -1;
};

/// A local service: says its name and a line end to each client, then sends back what comes.
class WebService : NoCopy {
public:
    explicit WebService(const std::string& name) : name_(name), thread_([this] { Serve(); }) {}
    ~WebService() {
        shutdown(listener_.fd, SHUT_RDWR);
        thread_.join();
    }

    const std::string& Name() const { return name_; }
    int Port() const { return listener_.port; }

private:
    void Serve() {
        std::vector<pollfd> fds = {{listener_.fd, POLLIN, 0}};
        char block[4096];
        for (int client = 0; client >= 0 && poll(fds.data(), fds.size(), -1) > 0;) {
            for (std::size_t i = fds.size() - 1; i > 0; --i) {
                const ssize_t size = fds[i].revents ? recv(fds[i].fd, block, sizeof block, 0) : 0;
                (void)send(fds[i].fd, block, static_cast<std::size_t>(std::max<ssize_t>(size, 0)),
                           MSG_NOSIGNAL);
                if (fds[i].revents != 0 && size <= 0) {
                    close(fds[i].fd);
                    fds.erase(fds.begin() + static_cast<std::ptrdiff_t>(i));
                }
            }
            if (fds[0].revents != 0) {
                client = accept4(listener_.fd, nullptr, nullptr, SOCK_CLOEXEC);
                (void)send(client, (name_ + "\n").data(), name_.size() + 1, MSG_NOSIGNAL);
                fds.push_back({client, POLLIN, 0});
            }
        }
        for (std::size_t i = 1; i < fds.size(); ++i) {
            close(fds[i].fd);
        }
    }

    const std::string name_;
    const Listener listener_;
    std::thread thread_;
};

/// A visitor of a port of 127.0.0.1, or any other plain TCP client.
class Visitor : Socket {
public:
    explicit Visitor(int port) : Socket(AF_INET) {
        const sockaddr_in address = Loopback(port);
        refused_ = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0;
    }

    bool IsRefused() const { return refused_; }

    /// Whether the other side still accepts all of it.
    bool Send(const std::string& text) const {
        return send(fd, text.data(), text.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(text.size());
    }
    void EndSending() const { shutdown(fd, SHUT_WR); }
    /// Resets the connection instead of ending it when this object goes.
    void BreakOff() const {
        const linger none = {1, 0};
        (void)setsockopt(fd, SOL_SOCKET, SO_LINGER, &none, sizeof none);
    }

    /// Reads until the other side ends, `size` bytes have come, or nothing comes for `wait` ms.
    std::string Read(std::size_t size = SIZE_MAX, int wait = 20000) const {
        std::string all;
        char block[65536];
        pollfd ready = {fd, POLLIN, 0};
        for (ssize_t got = 1; got > 0 && all.size() < size && poll(&ready, 1, wait) == 1;) {
            got = recv(fd, block, std::min(sizeof block, size - all.size()), 0);
            all.append(block, static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
        }
        return all;
    }

    /// The next line without its end; the part that came when nothing follows for a second.
    std::string Line() const {
        std::string line;
        for (std::string c = Read(1, 1000); !c.empty() && c != "\n"; c = Read(1, 1000)) {
            line += c;
        }
        return line;
    }

    /// Sends a line; returns the answer.
    std::string Ask(const std::string& line) const { return Send(line + "\n") ? Line() : ""; }

private:
    bool refused_ = true;
};

/// The name of the service that answers on a port; empty when there is none.
inline std::string Greeting(int port) {
    return Visitor(port).Line();
}
