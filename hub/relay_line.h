/// The SSH connection of one session, as the library sees it.
#pragma once

#include <cstdint>
#include <memory>
#include <utility>

#include <libssh/callbacks.h>
#include <libssh/libssh.h>
#include <libssh/server.h>

#include "base/unique_fd.h"

namespace ZARO::RelayHub {

/// Owns the connection. The library polls nothing but this one, and never waits. For the thread of
/// the session's loop.
class RelayLine {
public:
    enum class Exchange { Failed, UnderWay, Done };

    explicit RelayLine(UniqueFd fd)
        : session_(nullptr, ssh_free), event_(nullptr, ssh_event_free), fd_(std::move(fd)) {}
    RelayLine(const RelayLine&) = delete;
    RelayLine& operator=(const RelayLine&) = delete;
    ~RelayLine() { Close(); }

    /// Makes the session; `callbacks` outlive it. False when out of memory or descriptors.
    bool Start(ssh_bind bind, ssh_callbacks callbacks);
    /// Reads and writes what is ready. False when the connection is lost.
    bool Poll();
    /// Goes on with the key exchange that comes before the log-in. The first call greets.
    Exchange ExchangeKeys();
    /// Ends the session, at once and without a word, and closes the connection.
    void Close();

    bool IsConnected() const { return inEvent_ && ssh_is_connected(session_.get()) != 0; }
    /// Whether data for the device waits for the line. After each write it has to be polled once
    /// before it counts as free again.
    bool IsWriting() const { return (ssh_get_poll_flags(session_.get()) & SSH_WRITE_PENDING) != 0; }
    /// Bytes that came and went so far. The library reads in other calls than Poll() too.
    std::uint64_t In() const { return traffic_.in_bytes; }
    std::uint64_t Out() const { return traffic_.out_bytes; }
    ssh_session Session() const { return session_.get(); }
    /// The descriptor, until Close().
    int Get() const { return fd_.Get(); }

private:
    std::unique_ptr<ssh_session_struct, void (*)(ssh_session)> session_;
    std::unique_ptr<ssh_event_struct, void (*)(ssh_event)> event_;
    /// The library has a duplicate: it closes its own whenever the connection is lost, and the next
    /// connection may get that number while this one is still watched.
    UniqueFd fd_;
    bool inEvent_ = false; ///< event_ watches the session
    ssh_counter_struct traffic_{};
};

} // namespace ZARO::RelayHub
