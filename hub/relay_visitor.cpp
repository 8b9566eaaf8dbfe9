#include "hub/relay_visitor.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include <libssh/server.h>

#include "hub/net.h"

namespace ZARO::RelayHub {

namespace {

/// More than any window that the library grants, so that only a device that ignores it gets here.
constexpr std::size_t kMaxUntaken = 4 << 20;

/// How long data may wait for a visitor that takes none. The socket's own time-out won't do, since
/// it would also replace that of the keep-alive, which is much shorter.
constexpr auto kStuckTime = std::chrono::hours(1);

} // namespace

RelayVisitor::RelayVisitor(ssh_session session, UniqueFd fd)
    : channel_(ssh_channel_new(session)), fd_(std::move(fd)) {
    SetNoDelay(fd_.Get());
    // Ends visitors whose machine vanished: they would keep their place and their channel. One that
    // only pauses stays, as long as no data waits for it.
    SetKeepAlive(fd_.Get(), 60, 15, 4);
    callbacks_.userdata = this;
    callbacks_.channel_data_function = OnData;
    callbacks_.channel_eof_function = OnEof;
    callbacks_.channel_close_function = OnClose;
    ssh_callbacks_init(&callbacks_);
    if (channel_ == nullptr || ssh_set_channel_callbacks(channel_, &callbacks_) != SSH_OK) {
        state_ = State::Done;
    }
}

RelayVisitor::~RelayVisitor() {
    if (channel_ == nullptr) {
        return;
    }
    (void)ssh_remove_channel_callbacks(channel_, &callbacks_);
    // Freeing an open channel closes it; one that was never opened must not be closed, the peer
    // would drop the whole session.
    ssh_channel_free(channel_);
}

void RelayVisitor::Open(const std::string& address, int port) {
    forwardAddress_ = address;
    forwardPort_ = port;
    peerAddress_ = PeerOf(fd_.Get(), peerPort_);
    AwaitOpening();
}

void RelayVisitor::AwaitOpening() {
    if (state_ != State::Opening) {
        return;
    }
    const int result = ssh_channel_open_reverse_forward(
        channel_, forwardAddress_.c_str(), forwardPort_, peerAddress_.c_str(), peerPort_);
    if (result == SSH_OK) {
        state_ = State::Open;
    } else if (result != SSH_AGAIN) {
        state_ = State::Done; // nothing listens at the device
    }
}

pollfd RelayVisitor::Wanted(bool sending) {
    const bool open = state_ == State::Open;
    reading_ = open && sending && !visitorEnded_ && unsent_.empty() && !deviceClosed_ &&
               ssh_channel_window_size(channel_) > 0;
    const auto events =
        static_cast<short>((reading_ ? POLLIN : 0) | (open && !IsDrained() ? POLLOUT : 0));
    // Even without events poll() reports a lost connection. Once this side is shut, it would report
    // the visitor's orderly end as well, whose last bytes may still be unread.
    return {events == 0 && toldVisitor_ ? -1 : fd_.Get(), events, 0};
}

void RelayVisitor::Move(short events, Clock::time_point now, char* buffer) {
    const bool lost = !reading_ && (events & (POLLHUP | POLLERR)) != 0;
    const bool stuck = !IsDrained() && now >= movedAt_ + kStuckTime;
    broken_ = broken_ || lost || stuck;
    if (state_ == State::Open && !broken_) {
        MoveOpen(events, buffer);
    }
    const bool ended =
        broken_ || (IsDrained() && (deviceClosed_ || (toldVisitor_ && visitorEnded_)));
    if (ended) {
        (void)fd_.Close();
    }
    if (ended && state_ == State::Open) {
        state_ = State::Leaving;
        (void)ssh_channel_close(channel_); // fails only with the whole session
    }
    if (state_ == State::Leaving && deviceClosed_) {
        state_ = State::Done;
    }
}

void RelayVisitor::End() {
    broken_ = true;
    Move(0, movedAt_, nullptr);
}

void RelayVisitor::MoveOpen(short events, char* buffer) {
    if ((events & (POLLIN | POLLHUP | POLLERR)) != 0 || !unsent_.empty()) {
        ToDevice(buffer);
    }
    if (!IsDrained() && (events & (POLLOUT | POLLHUP | POLLERR)) != 0) {
        ToVisitor(buffer);
    }
    if (IsDrained() && deviceEnded_ && !toldVisitor_) {
        toldVisitor_ = true;
        (void)shutdown(fd_.Get(), SHUT_WR);
    }
}

void RelayVisitor::ToDevice(char* buffer) {
    const char* data = unsent_.data();
    std::size_t size = unsent_.size();
    if (size == 0 && !visitorEnded_ && !deviceClosed_) {
        const std::size_t room = std::min<std::size_t>(kChunk, ssh_channel_window_size(channel_));
        const ssize_t got = room == 0 ? -1 : recv(fd_.Get(), buffer, room, 0);
        if (room == 0 || (got < 0 && (errno == EAGAIN || errno == EINTR))) {
            return;
        }
        if (got < 0) {
            broken_ = true;
            return;
        }
        movedAt_ = Clock::now();
        if (got == 0) {
            visitorEnded_ = true;
            broken_ = ssh_channel_send_eof(channel_) == SSH_ERROR;
            return;
        }
        data = buffer;
        size = static_cast<std::size_t>(got);
    }
    if (size == 0) {
        return;
    }
    const int taken = ssh_channel_write(channel_, data, static_cast<std::uint32_t>(size));
    if (taken < 0) {
        broken_ = true;
        return;
    }
    // While keys are exchanged the channel takes nothing.
    unsent_ = std::string(data + taken, data + size);
}

void RelayVisitor::ToVisitor(char* buffer) {
    for (;;) {
        pending_.erase(0, Send(pending_.data(), pending_.size()));
        if (!pending_.empty() || !backlog_) {
            return;
        }
        const int got = ssh_channel_read_nonblocking(channel_, buffer, kChunk, 0);
        if (got <= 0) {
            backlog_ = false;
            return;
        }
        pending_.assign(buffer, static_cast<std::size_t>(got));
    }
}

std::size_t RelayVisitor::Send(const char* data, std::size_t size) {
    std::size_t done = 0;
    while (done < size && !broken_) {
        const ssize_t sent = send(fd_.Get(), data + done, size - done, MSG_NOSIGNAL);
        if (sent > 0) {
            movedAt_ = Clock::now();
            done += static_cast<std::size_t>(sent);
        } else if (errno == EAGAIN) {
            return done;
        } else {
            broken_ = errno != EINTR;
        }
    }
    return size;
}

int RelayVisitor::OnData(ssh_session, ssh_channel, void* data, std::uint32_t size, int isError,
                         void* self) {
    auto* visitor = static_cast<RelayVisitor*>(self);
    visitor->overrun_ = visitor->overrun_ || size > kMaxUntaken;
    if (isError != 0 || visitor->broken_ || visitor->state_ == State::Leaving) {
        return static_cast<int>(size); // the first has no place in a forwarded connection
    }
    if (!visitor->IsDrained()) {
        visitor->backlog_ = true; // what is not taken here stays in the channel, in order
        return 0;
    }
    const std::size_t taken = visitor->Send(static_cast<const char*>(data), size);
    visitor->backlog_ = taken < size;
    return static_cast<int>(taken);
}

void RelayVisitor::OnEof(ssh_session, ssh_channel, void* self) {
    static_cast<RelayVisitor*>(self)->deviceEnded_ = true;
}

void RelayVisitor::OnClose(ssh_session, ssh_channel, void* self) {
    auto* visitor = static_cast<RelayVisitor*>(self);
    visitor->deviceEnded_ = true;
    visitor->deviceClosed_ = true;
}

} // namespace ZARO::RelayHub
