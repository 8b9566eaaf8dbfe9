/// The byte stream of one web client, plain or TLS, as the HTTP library wants it.
#pragma once

#include <array>
#include <chrono>
#include <memory>
#include <string>

#include <httplib.h>

#include "base/unique_fd.h"
#include "hub/web.h"

namespace ZARO::RelayHub {

/// For one thread; only Shut() may come from another one. Bounds the time and the bytes that one
/// request may take, which the HTTP library leaves open.
class WebStream final : public httplib::Stream {
public:
    using Clock = std::chrono::steady_clock;

    /// `tls` null = plain.
    WebStream(UniqueFd fd, SSL_CTX* tls);
    ~WebStream() override;

    /// Does the TLS handshake, if there is one. False when the peer fails in it.
    bool Begin();
    /// Waits for the first byte of a request, at most `idle`, and gives the request its time and
    /// the bytes that its head may have.
    bool WaitForRequest(std::chrono::seconds idle);
    /// The head is read: now the body may come.
    void AllowBody();
    /// Ends an exchange whose request was not read to its end: the peer gets the time to take the
    /// reply before the connection is torn down.
    void Linger();
    /// Ends reading, or everything, so that the owning thread comes to its end.
    void Shut(bool everything);

    bool is_readable() const override;
    bool is_writable() const override;
    ssize_t read(char* to, std::size_t size) override;
    ssize_t write(const char* from, std::size_t size) override;
    void get_remote_ip_and_port(std::string& ip, int& port) const override;
    void get_local_ip_and_port(std::string& ip, int& port) const override;
    socket_t socket() const override;

private:
    using SslHandle = std::unique_ptr<SSL, SslDeleter>;

    /// Fills the empty buffer. 1 = done, 0 = the peer sends no more, -1 = failed or out of time.
    int Fill(Clock::time_point deadline);
    /// What a TLS call wants next, waited for until `deadline`. False when it failed.
    bool WaitForTls(int result, Clock::time_point deadline);
    bool WaitFor(short events, Clock::time_point deadline) const;

    const UniqueFd fd_;
    const SslHandle tls_;
    std::array<char, 4096> buffer_;
    std::size_t from_ = 0, to_ = 0; ///< the unread part of the buffer
    std::size_t budget_ = 0;        ///< bytes that the request may still have
    Clock::time_point readDeadline_;
    bool broken_ = false; ///< nothing more can be exchanged
};

} // namespace ZARO::RelayHub
