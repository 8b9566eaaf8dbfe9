#include "hub/acceptor.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <utility>

#include "hub/log.h"
#include "hub/net.h"

namespace ZARO::RelayHub {

namespace {

constexpr int kAcceptedAtOnce = 32; // then the loop serves others

} // namespace

Acceptor::Acceptor(const char* unit, Loop& loop, MayAccept mayAccept, OnAccept onAccept)
    : unit_(unit), loop_(loop), mayAccept_(std::move(mayAccept)), onAccept_(std::move(onAccept)),
      listener_(loop), rest_(loop) {
}

void Acceptor::Start(UniqueFd listener) {
    port_ = PortOf(listener.Get());
    asio::post(loop_, [self = shared_from_this(), fd = std::move(listener)]() mutable {
        boost::system::error_code failed;
        self->listener_.assign(fd.Get(), failed);
        if (failed) {
            Log(Level::Error, self->unit_, "can't watch the listener: %s",
                failed.message().c_str());
            return;
        }
        (void)fd.Release();
        self->Wait();
    });
}

void Acceptor::Resume() {
    asio::post(loop_, [self = shared_from_this()] {
        if (self->resting_) {
            (void)self->rest_.cancel();
        }
    });
}

void Acceptor::Stop() {
    asio::post(loop_, [self = shared_from_this()] {
        boost::system::error_code ignored; // a close that fails leaves nothing to do
        (void)self->listener_.close(ignored);
        (void)self->rest_.cancel();
    });
}

void Acceptor::Wait() {
    if (waiting_ || resting_ || !listener_.is_open()) {
        return;
    }
    waiting_ = true;
    listener_.async_wait(asio::posix::stream_descriptor::wait_read,
                         [self = shared_from_this()](const boost::system::error_code& failed) {
                             self->waiting_ = false;
                             if (!failed) {
                                 self->AcceptAll();
                             }
                         });
}

void Acceptor::AcceptAll() {
    for (int i = 0; i < kAcceptedAtOnce && listener_.is_open(); ++i) {
        if (!mayAccept_()) {
            Rest();
            return;
        }
        UniqueFd fd(
            accept4(listener_.native_handle(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!fd.IsOpen()) {
            if (IsShortage(errno)) {
                SetShortage(strerror(errno));
                Rest();
                return;
            }
            break; // none is left, or the peer is gone already
        }
        SetNoDelay(fd.Get());
        try {
            onAccept_(std::move(fd));
        } catch (const std::exception& fault) { // out of memory
            SetShortage(fault.what());
            Rest();
            return;
        }
        SetShortage(nullptr);
    }
    Wait();
}

void Acceptor::Rest() {
    resting_ = true;
    rest_.expires_after(kAcceptPause);
    rest_.async_wait([self = shared_from_this()](const boost::system::error_code&) {
        self->resting_ = false; // also when Resume() cut it short
        if (self->listener_.is_open()) {
            self->AcceptAll();
        }
    });
}

void Acceptor::SetShortage(const char* reason) {
    if (inShortage_ && reason == nullptr) {
        Log(Level::Info, unit_, "accepts connections again");
    } else if (!inShortage_ && reason != nullptr) {
        Log(Level::Warning, unit_, "connections wait: %s", reason);
    }
    inShortage_ = reason != nullptr;
}

} // namespace ZARO::RelayHub
