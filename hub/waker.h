/// Wakes a thread that waits for descriptors.
#pragma once

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>
#include <utility>

#include "base/unique_fd.h"

namespace ZARO::RelayHub {

/// Wakes a thread that sits in poll(). Any thread may call Wake(); the waiting thread polls Get().
/// Without a descriptor left in the process IsValid() is false and nobody can be woken.
class Waker {
public:
    Waker() : fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}
    /// Takes over the descriptor of another one.
    explicit Waker(UniqueFd fd) : fd_(std::move(fd)) {}

    bool IsValid() const { return fd_.IsOpen(); }
    int Get() const { return fd_.Get(); }
    int Release() { return fd_.Release(); }
    void Wake() {
        const std::uint64_t one = 1;
        // It can only fail when the counter is full, and then the reader is awake anyway.
        (void)!write(fd_.Get(), &one, sizeof one);
    }
    /// Waits until woken, at most `milliseconds`; -1 = without limit. True when woken.
    bool WaitFor(int milliseconds) const {
        pollfd wait{fd_.Get(), POLLIN, 0};
        return poll(&wait, 1, milliseconds) > 0;
    }

private:
    UniqueFd fd_;
};

} // namespace ZARO::RelayHub
