#include "hub/web_stream.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include <openssl/err.h>

#include "hub/net.h"

namespace ZARO::RelayHub {

namespace {

using std::chrono::seconds;

/// From the first byte of a request to its last one; also for a TLS handshake.
constexpr auto kRequestTime = seconds(15);
constexpr auto kReplyTime = seconds(10);
constexpr auto kLingerTime = seconds(2);

constexpr std::size_t kHeadBytes = 32 << 10;

/// Room for a body of 256 KiB in small chunks; one that is refused for its size is read off up to
/// here, so that the peer sees the refusal.
constexpr std::size_t kBodyBytes = 4 << 20;

} // namespace

WebStream::WebStream(UniqueFd fd, SSL_CTX* tls)
    : fd_(std::move(fd)), tls_(tls == nullptr ? nullptr : SSL_new(tls)), buffer_{} {
    broken_ = tls != nullptr && (tls_ == nullptr || SSL_set_fd(tls_.get(), fd_.Get()) != 1);
}

WebStream::~WebStream() {
    if (tls_ != nullptr && !broken_) {
        (void)SSL_shutdown(tls_.get()); // a courtesy; nobody waits for the answer
    }
}

bool WebStream::Begin() {
    const auto deadline = Clock::now() + kRequestTime;
    while (!broken_ && tls_ != nullptr) {
        const int result = SSL_accept(tls_.get());
        if (result == 1) {
            return true;
        }
        broken_ = !WaitForTls(result, deadline);
    }
    return !broken_;
}

void WebStream::AllowBody() {
    budget_ = kBodyBytes;
}

bool WebStream::WaitForRequest(seconds idle) {
    budget_ = kHeadBytes;
    if (broken_ || (from_ == to_ && Fill(Clock::now() + idle) != 1)) {
        return false;
    }
    readDeadline_ = Clock::now() + kRequestTime;
    return true;
}

void WebStream::Linger() {
    if (broken_) {
        return;
    }
    (void)shutdown(fd_.Get(), SHUT_WR);
    const auto deadline = Clock::now() + kLingerTime;
    budget_ = kBodyBytes;
    do {
        from_ = to_;
    } while (Fill(deadline) == 1);
    broken_ = true;
}

void WebStream::Shut(bool everything) {
    // The descriptor lives as long as this object, so another thread can do this safely.
    (void)shutdown(fd_.Get(), everything ? SHUT_RDWR : SHUT_RD);
}

int WebStream::Fill(Clock::time_point deadline) {
    while (!broken_ && budget_ > 0) {
        const std::size_t room = std::min(buffer_.size(), budget_);
        ssize_t got = 0;
        if (tls_ != nullptr) {
            got = SSL_read(tls_.get(), buffer_.data(), static_cast<int>(room));
            if (got <= 0 && WaitForTls(static_cast<int>(got), deadline)) {
                continue;
            }
        } else {
            got = recv(fd_.Get(), buffer_.data(), room, 0);
            if (got < 0 && (errno == EAGAIN || errno == EINTR) && WaitFor(POLLIN, deadline)) {
                continue;
            }
        }
        if (got <= 0) {
            break;
        }
        from_ = 0;
        to_ = static_cast<std::size_t>(got);
        budget_ -= to_;
        return 1;
    }
    broken_ = true;
    return -1;
}

bool WebStream::WaitForTls(int result, Clock::time_point deadline) {
    const int reason = SSL_get_error(tls_.get(), result);
    ERR_clear_error(); // the queue belongs to the thread and must not disturb its next call
    return reason == SSL_ERROR_WANT_READ    ? WaitFor(POLLIN, deadline)
           : reason == SSL_ERROR_WANT_WRITE ? WaitFor(POLLOUT, deadline)
                                            : false;
}

bool WebStream::WaitFor(short events, Clock::time_point deadline) const {
    for (;;) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0) {
            return false;
        }
        pollfd wait{fd_.Get(), events, 0};
        const int ready = poll(&wait, 1, static_cast<int>(left));
        if (ready > 0) {
            return true;
        }
        if (ready < 0 && errno != EINTR) {
            return false;
        }
    }
}

bool WebStream::is_readable() const {
    return from_ < to_ || WaitFor(POLLIN, readDeadline_);
}

bool WebStream::is_writable() const {
    return !broken_;
}

ssize_t WebStream::read(char* to, std::size_t size) {
    if (from_ == to_ && Fill(readDeadline_) != 1) {
        return -1;
    }
    const std::size_t taken = std::min(size, to_ - from_);
    memcpy(to, buffer_.data() + from_, taken);
    from_ += taken;
    return static_cast<ssize_t>(taken);
}

ssize_t WebStream::write(const char* from, std::size_t size) {
    const auto deadline = Clock::now() + kReplyTime;
    std::size_t done = 0;
    while (!broken_ && done < size) {
        const std::size_t part = std::min<std::size_t>(size - done, 1 << 16);
        ssize_t sent = 0;
        if (tls_ != nullptr) {
            sent = SSL_write(tls_.get(), from + done, static_cast<int>(part));
            broken_ = sent <= 0 && !WaitForTls(static_cast<int>(sent), deadline);
        } else {
            sent = send(fd_.Get(), from + done, part, MSG_NOSIGNAL);
            broken_ =
                sent < 0 && !((errno == EAGAIN || errno == EINTR) && WaitFor(POLLOUT, deadline));
        }
        done += static_cast<std::size_t>(std::max<ssize_t>(sent, 0));
    }
    return broken_ ? -1 : static_cast<ssize_t>(size);
}

void WebStream::get_remote_ip_and_port(std::string& ip, int& port) const {
    ip = PeerOf(fd_.Get(), port);
}

void WebStream::get_local_ip_and_port(std::string& ip, int& port) const {
    ip.clear();
    port = PortOf(fd_.Get());
}

socket_t WebStream::socket() const {
    // The library compares it with the bound of select(), which is never used on this stream.
    return 0;
}

} // namespace ZARO::RelayHub
