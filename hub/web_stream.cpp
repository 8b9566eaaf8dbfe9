#include "hub/web_stream.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include <openssl/err.h>

#include "hub/net.h"

namespace ZARO::RelayHub {

WebStream::WebStream(Loop& loop, UniqueFd fd, SSL_CTX* tls)
    : socket_(loop), tls_(tls == nullptr ? nullptr : SSL_new(tls)) {
    boost::system::error_code failed;
    (void)socket_.assign(fd.Get(), failed);
    if (!failed) {
        (void)fd.Release();
    }
    broken_ = failed || (tls != nullptr &&
                         (tls_ == nullptr || SSL_set_fd(tls_.get(), socket_.native_handle()) != 1));
}

WebStream::Result WebStream::Begin() {
    if (broken_ || tls_ == nullptr) {
        return broken_ ? Result::Broken : Result::Done;
    }
    const int result = SSL_accept(tls_.get());
    return result == 1 ? Result::Done : OfTls(result);
}

WebStream::Result WebStream::Read(char* to, std::size_t size, std::size_t& got) {
    if (broken_) {
        return Result::Broken;
    }
    if (tls_ != nullptr) {
        const int count = SSL_read(tls_.get(), to, static_cast<int>(size));
        got = static_cast<std::size_t>(std::max(count, 0));
        return count > 0 ? Result::Done : OfTls(count);
    }
    ssize_t count = 0;
    do {
        count = recv(socket_.native_handle(), to, size, 0);
    } while (count < 0 && errno == EINTR);
    if (count < 0 && errno == EAGAIN) {
        return Result::WantRead;
    }
    broken_ = count < 0;
    got = static_cast<std::size_t>(std::max<ssize_t>(count, 0));
    return count > 0 ? Result::Done : broken_ ? Result::Broken : Result::Ended;
}

WebStream::Result WebStream::Write(const char* from, std::size_t size, std::size_t& sent) {
    if (broken_) {
        return Result::Broken;
    }
    if (tls_ != nullptr) {
        const int count =
            SSL_write(tls_.get(), from, static_cast<int>(std::min<std::size_t>(size, 1 << 16)));
        sent = static_cast<std::size_t>(std::max(count, 0));
        return count > 0 ? Result::Done : OfTls(count);
    }
    ssize_t count = 0;
    do {
        count = send(socket_.native_handle(), from, size, MSG_NOSIGNAL);
    } while (count < 0 && errno == EINTR);
    if (count < 0 && errno == EAGAIN) {
        return Result::WantWrite;
    }
    broken_ = count < 0;
    sent = static_cast<std::size_t>(std::max<ssize_t>(count, 0));
    return broken_ ? Result::Broken : Result::Done;
}

WebStream::Result WebStream::OfTls(int result) {
    const int reason = SSL_get_error(tls_.get(), result);
    ERR_clear_error(); // the queue belongs to the thread and must not disturb its next call
    switch (reason) {
    case SSL_ERROR_WANT_READ:
        return Result::WantRead;
    case SSL_ERROR_WANT_WRITE:
        return Result::WantWrite;
    case SSL_ERROR_ZERO_RETURN:
        return Result::Ended;
    default:
        broken_ = true;
        return Result::Broken;
    }
}

void WebStream::EndWriting() {
    if (tls_ != nullptr && !broken_) {
        (void)SSL_shutdown(tls_.get()); // a courtesy; nobody waits for the answer
        ERR_clear_error();
    }
    if (socket_.is_open()) {
        (void)shutdown(socket_.native_handle(), SHUT_WR);
    }
}

void WebStream::Close() {
    EndWriting();
    boost::system::error_code ignored; // a close that fails leaves nothing to do
    (void)socket_.close(ignored);
    tls_.reset();
    broken_ = true;
}

std::string WebStream::Peer() {
    int port = 0;
    return PeerOf(socket_.native_handle(), port);
}

std::int64_t WebStream::Network() {
    return static_cast<std::int64_t>(NetworkOf(socket_.native_handle()));
}

} // namespace ZARO::RelayHub
