/// The byte stream of one web client, plain or TLS, that never blocks.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <utility>

#include <boost/asio/posix/stream_descriptor.hpp>
#include <openssl/ssl.h>

#include "base/unique_fd.h"
#include "hub/loops.h"

namespace ZARO::RelayHub {

struct SslDeleter {
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
    void operator()(SSL* ssl) const { SSL_free(ssl); }
};
using SslContext = std::unique_ptr<SSL_CTX, SslDeleter>;

/// For the thread of its loop. It keeps no buffer: TLS works on the descriptor itself, so that an
/// idle client costs little memory.
class WebStream {
public:
    enum class Result {
        Done,
        WantRead,  ///< again when there is something to read
        WantWrite, ///< again when there is room to write
        Ended,     ///< the peer sends no more
        Broken,    ///< nothing more can be exchanged
    };

    /// A record of TLS never holds more. A read with that much room leaves none half read.
    static constexpr std::size_t kRecord = 16 << 10;

    /// `tls` null = plain.
    WebStream(Loop& loop, UniqueFd fd, SSL_CTX* tls);

    /// Does the next step of the TLS handshake, if there is one.
    Result Begin();
    /// `got` bytes came on Done.
    Result Read(char* to, std::size_t size, std::size_t& got);
    /// `sent` bytes went out on Done, perhaps not all.
    Result Write(const char* from, std::size_t size, std::size_t& sent);
    /// Says that nothing more will be sent.
    void EndWriting();
    void Close();
    std::string Peer();
    /// A number for the peer's network, see NetworkOf().
    std::int64_t Network();

    /// Calls `ready` on the loop when the result that said so can be tried again, or when that
    /// can't be waited for any longer.
    template <typename Ready> void Wait(Result want, Ready ready) {
        socket_.async_wait(
            want == Result::WantWrite ? asio::posix::stream_descriptor::wait_write
                                      : asio::posix::stream_descriptor::wait_read,
            [ready = std::move(ready)](const boost::system::error_code&) mutable { ready(); });
    }

private:
    Result OfTls(int result);

    asio::posix::stream_descriptor socket_;
    std::unique_ptr<SSL, SslDeleter> tls_;
    bool broken_ = false; ///< nothing more can be exchanged
};

} // namespace ZARO::RelayHub
