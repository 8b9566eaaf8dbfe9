#include "hub/relay_visitor.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <utility>

#include <libssh/server.h>

#include "hub/log.h"
#include "hub/net.h"
#include "hub/relay_visitors.h"

namespace ZARO::RelayHub {

namespace {

/// More than any window that the library grants, so that only a device that ignores it gets here.
constexpr std::size_t kMaxUntaken = 4 << 20;

/// How long data may wait for a visitor that takes none. The socket's own time-out won't do, since
/// it would also replace that of the keep-alive, which is much shorter.
constexpr auto kStuckTime = std::chrono::hours(1);

} // namespace

RelayVisitor::RelayVisitor(RelayLane& lane, RelayVisitors& all, ssh_session session, UniqueFd fd)
    : lane_(lane), all_(all), channel_(ssh_channel_new(session)), fd_(std::move(fd)),
      watch_(lane.loop), movedAt_(lane.now) {
    SetNoDelay(fd_.Get());
    // Ends visitors whose machine vanished: they would keep their place and their channel. One that
    // only pauses stays, as long as no data waits for it.
    SetKeepAlive(fd_.Get(), 60, 15, 4);
    callbacks_.userdata = this;
    callbacks_.channel_data_function = OnData;
    callbacks_.channel_eof_function = OnEof;
    callbacks_.channel_close_function = OnClose;
    ssh_callbacks_init(&callbacks_);
    if (channel_ == nullptr || ssh_set_channel_callbacks(channel_, &callbacks_) != SSH_OK ||
        !watch_.Start(fd_.Get())) {
        state_ = State::Done;
    }
}

void RelayVisitor::Abandon() {
    watch_.Stop();
    (void)fd_.Close();
    if (channel_ != nullptr) {
        (void)ssh_remove_channel_callbacks(channel_, &callbacks_);
        // Freeing an open channel closes it; one that was never opened must not be closed, the peer
        // would drop the whole session.
        ssh_channel_free(channel_);
    }
    channel_ = nullptr;
    state_ = State::Done;
}

void RelayVisitor::Open(const std::string& address, int port) {
    forwardAddress_ = address;
    forwardPort_ = port;
    peerAddress_ = PeerOf(fd_.Get(), peerPort_);
    watch_.Await(Watch::Kind::HungUp, [self = shared_from_this()] {
        pollfd state{self->fd_.Get(), 0, 0}; // urgent data looks the same to the loop
        self->hungUp_ = poll(&state, 1, 0) > 0;
        self->Touch();
    });
    AwaitOpening();
}

void RelayVisitor::AwaitOpening() {
    if (state_ != State::Opening) {
        return;
    }
    const int result = ssh_channel_open_reverse_forward(
        channel_, forwardAddress_.c_str(), forwardPort_, peerAddress_.c_str(), peerPort_);
    if (result == SSH_AGAIN) {
        return;
    }
    state_ = result == SSH_OK ? State::Open : State::Done; // else nothing listens at the device
    readable_ = state_ == State::Open;                     // most have sent something by now
    Touch();
}

void RelayVisitor::Await(Watch::Kind kind, bool& flag) {
    watch_.Await(kind, [self = shared_from_this(), &flag] {
        flag = true;
        self->Touch();
    });
}

bool RelayVisitor::WantsRead() const {
    return state_ == State::Open && !visitorEnded_ && unsent_.empty() && !deviceClosed_ &&
           !windowShut_;
}

bool RelayVisitor::IsStuck() const {
    return !IsDrained() && lane_.now >= movedAt_ + kStuckTime;
}

bool RelayVisitor::CanResume() const {
    return IsGone() || !unsent_.empty() || ssh_channel_window_size(channel_) > 0;
}

std::size_t RelayVisitor::Move(bool mayRead) {
    std::size_t moved = 0;
    windowShut_ = state_ == State::Open && ssh_channel_window_size(channel_) == 0;
    // After this side is shut, the visitor's orderly end looks like a lost connection, and its last
    // bytes may still be unread.
    broken_ = broken_ || IsStuck() || (hungUp_ && !WantsRead() && !toldVisitor_);
    if (state_ == State::Open && !broken_) {
        moved = MoveOpen(mayRead);
    }
    const bool ended =
        broken_ || (IsDrained() && (deviceClosed_ || (toldVisitor_ && visitorEnded_)));
    if (ended) {
        watch_.Stop();
        (void)fd_.Close();
    }
    if (ended && state_ == State::Open) {
        state_ = State::Leaving;
        (void)ssh_channel_close(channel_); // fails only with the whole session
    }
    if (state_ == State::Leaving && deviceClosed_) {
        state_ = State::Done;
    }
    if (!readable_ && WantsRead()) {
        Await(Watch::Kind::Readable, readable_);
    }
    if (!writable_ && state_ == State::Open && !IsDrained()) {
        Await(Watch::Kind::Writable, writable_);
    }
    return moved;
}

void RelayVisitor::End() {
    broken_ = true;
    (void)Move(false);
}

std::size_t RelayVisitor::MoveOpen(bool mayRead) {
    std::size_t moved = 0;
    if (mayRead && (HasMore() || !unsent_.empty())) {
        moved = ToDevice();
    }
    if (!IsDrained() && writable_) {
        writable_ = false;
        ToVisitor();
    }
    if (IsDrained() && deviceEnded_ && !toldVisitor_) {
        toldVisitor_ = true;
        (void)shutdown(fd_.Get(), SHUT_WR);
    }
    return moved;
}

std::size_t RelayVisitor::ToDevice() {
    char* const buffer = lane_.buffer.data();
    const char* data = unsent_.data();
    std::size_t size = unsent_.size();
    if (size == 0) {
        const std::size_t room =
            std::min<std::size_t>(RelayLane::kChunk, ssh_channel_window_size(channel_));
        const ssize_t got = recv(fd_.Get(), buffer, room, 0);
        readable_ = got == static_cast<ssize_t>(room) || (got < 0 && errno == EINTR);
        if (got < 0) {
            broken_ = errno != EAGAIN && errno != EINTR;
            return 0;
        }
        Moved();
        if (got == 0) {
            visitorEnded_ = true;
            broken_ = ssh_channel_send_eof(channel_) == SSH_ERROR;
            return 0;
        }
        data = buffer;
        size = static_cast<std::size_t>(got);
    }
    const int taken = ssh_channel_write(channel_, data, static_cast<std::uint32_t>(size));
    if (taken < 0) {
        broken_ = true;
        return 0;
    }
    // While keys are exchanged the channel takes nothing.
    unsent_ = std::string(data + taken, data + size);
    windowShut_ = ssh_channel_window_size(channel_) == 0;
    return static_cast<std::size_t>(taken);
}

void RelayVisitor::ToVisitor() {
    for (;;) {
        pending_.erase(0, Send(pending_.data(), pending_.size()));
        if (!pending_.empty() || !backlog_) {
            return;
        }
        char* const buffer = lane_.buffer.data();
        const int got = ssh_channel_read_nonblocking(channel_, buffer, RelayLane::kChunk, 0);
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
            Moved();
            done += static_cast<std::size_t>(sent);
        } else if (errno == EAGAIN) {
            return done;
        } else {
            broken_ = errno != EINTR;
        }
    }
    return size;
}

void RelayVisitor::Moved() {
    movedAt_ = lane_.now;
    all_.Moved(*this);
}

void RelayVisitor::Touch() noexcept {
    try {
        all_.Touch(*this);
    } catch (const std::exception& fault) {
        Log(Level::Error, "relay", "a visitor waits: %s", fault.what());
    }
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
        if (visitor->overrun_) {
            visitor->Touch();
        }
        return 0;
    }
    const std::size_t taken = visitor->Send(static_cast<const char*>(data), size);
    visitor->backlog_ = taken < size;
    if (visitor->backlog_ || visitor->broken_ || visitor->overrun_) {
        visitor->Touch();
    }
    return static_cast<int>(taken);
}

void RelayVisitor::OnEof(ssh_session, ssh_channel, void* self) {
    auto* visitor = static_cast<RelayVisitor*>(self);
    visitor->deviceEnded_ = true;
    visitor->Touch();
}

void RelayVisitor::OnClose(ssh_session, ssh_channel, void* self) {
    auto* visitor = static_cast<RelayVisitor*>(self);
    visitor->deviceEnded_ = true;
    visitor->deviceClosed_ = true;
    visitor->Touch();
}

} // namespace ZARO::RelayHub
