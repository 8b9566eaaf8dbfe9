/// The port at which the visitors of one tunnel arrive.
#pragma once

#include <sys/socket.h>

#include <cerrno>
#include <mutex>
#include <utility>

#include "base/unique_fd.h"

namespace ZARO::RelayHub {

class RelayHost;

/// A listener that outlives the session it serves: when a device logs in again, its new session
/// takes the open port over, so that no visitor is refused in between. Any thread may call any
/// method.
class RelayPort {
public:
    explicit RelayPort(UniqueFd listener) : listener_(std::move(listener)) {}

    /// To watch for visitors.
    int Get() const { return listener_.Get(); }

    /// From now on `owner` alone accepts.
    void GiveTo(const RelayHost* owner) {
        const std::lock_guard<std::mutex> lock(mutex_);
        owner_ = owner;
    }

    /// Refuses visitors from now on, whoever still holds this object.
    void Shut() {
        GiveTo(nullptr);
        (void)shutdown(listener_.Get(), SHUT_RDWR);
    }

    /// The next visitor, non-blocking; empty with errno set when there is none for `owner`.
    UniqueFd Accept(const RelayHost* owner) {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (owner_ != owner) {
            errno = EAGAIN;
            return UniqueFd();
        }
        return UniqueFd(accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    }

private:
    std::mutex mutex_;
    const RelayHost* owner_ = nullptr;
    const UniqueFd listener_;
};

} // namespace ZARO::RelayHub
