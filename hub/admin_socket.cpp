#include "hub/admin_socket.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>

#include "base/unix_socket.h"
#include "hub/log.h"

namespace ZARO::RelayHub {

namespace {

constexpr auto kPause = std::chrono::seconds(1);

/// Locked by whoever listens, and never removed.
constexpr char kLock[] = "/admin.lock";

constexpr char kTooMany[] =
    R"({"ok":false,"code":11,"error":"too many requests at once; retry in a moment"})"
    "\n";

} // namespace

AdminSocket::AdminSocket(Loops& loops, std::string folder, AdminAnswer answer)
    : loops_(loops), loop_(loops.Next()), folder_(std::move(folder)), answer_(std::move(answer)),
      timer_(loop_) {
}

void AdminSocket::Start() {
    if (!Listen()) {
        asio::post(loop_, [self = shared_from_this()] { self->Wait(); });
    }
}

void AdminSocket::Stop() {
    ended_ = true;
    asio::post(loop_, [self = shared_from_this()] { (void)self->timer_.cancel(); });
    const std::lock_guard<std::mutex> lock(mutex_);
    if (acceptor_ != nullptr) {
        (void)unlink((folder_ + "/" + kAdminSocket).c_str()); // else the next one replaces it
        acceptor_->Stop();
        acceptor_.reset();
    }
    for (const auto& connection : connections_) {
        if (const Connection open = connection.lock()) {
            open->Close();
        }
    }
    lock_ = UniqueFd(); // after the file is gone, which may be the next one's from now on
}

void AdminSocket::Wait() {
    timer_.expires_after(kPause);
    timer_.async_wait([self = shared_from_this()](const boost::system::error_code& stopped) {
        if (stopped || self->ended_) {
            return;
        }
        self->loops_.Block([self] {
            if (!self->Listen()) {
                asio::post(self->loop_, [self] { self->Wait(); });
            }
        });
    });
}

bool AdminSocket::Listen() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (ended_) {
        return true; // nothing is left to do
    }
    bool taken = false;
    const bool good = Bind(taken);
    Note(good || taken ? 0 : errno);
    return good;
}

bool AdminSocket::Bind(bool& taken) {
    UniqueFd locked(
        open((folder_ + kLock).c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!locked.IsOpen() || flock(locked.Get(), LOCK_EX | LOCK_NB) != 0) {
        taken = locked.IsOpen() && errno == EWOULDBLOCK;
        return false;
    }
    // What is there was left by a process that did not end in order.
    if (unlink((folder_ + "/" + kAdminSocket).c_str()) != 0 && errno != ENOENT) {
        return false;
    }
    UniqueFd listener = ListenUnix(folder_, kAdminSocket);
    if (!listener.IsOpen()) {
        return false;
    }
    acceptor_ = std::make_shared<Acceptor>(
        "admin", loop_, [] { return true; },
        [self = shared_from_this()](UniqueFd fd) { self->Accept(std::move(fd)); });
    acceptor_->Start(std::move(listener));
    lock_ = std::move(locked);
    return true;
}

void AdminSocket::Note(int error) {
    if (error != 0 && error_ == 0) {
        Log(Level::Warning, "admin",
            "zarorelay-hubctl can't reach this hub through %s/%s, retries: %s", folder_.c_str(),
            kAdminSocket, strerror(error));
    } else if (error == 0 && error_ != 0) {
        Log(Level::Info, "admin", "%s/%s works now", folder_.c_str(), kAdminSocket);
    }
    error_ = error;
}

void AdminSocket::Accept(UniqueFd fd) {
    const std::lock_guard<std::mutex> lock(mutex_);
    connections_.erase(std::remove_if(connections_.begin(), connections_.end(),
                                      [](const auto& connection) { return connection.expired(); }),
                       connections_.end());
    if (ended_) {
        return;
    }
    if (connections_.size() >= kMostConnections) {
        // A new connection has room for this.
        (void)send(fd.Get(), kTooMany, sizeof kTooMany - 1, MSG_NOSIGNAL | MSG_DONTWAIT);
        return;
    }
    const auto connection = std::make_shared<AdminConnection>(loops_, loop_, answer_);
    connections_.push_back(connection);
    connection->Start(std::move(fd));
}

} // namespace ZARO::RelayHub
