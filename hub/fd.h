/// Owners of descriptors.
#pragma once

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>
#include <utility>

namespace ZARO::RelayHub {

/// Owns one descriptor and closes it.
class Fd {
public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {}
    Fd(Fd&& other) noexcept : fd_(other.Release()) {}
    Fd& operator=(Fd&& other) noexcept {
        Reset(other.Release());
        return *this;
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    ~Fd() { Reset(); }

    int Get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int Release() { return std::exchange(fd_, -1); }
    void Reset(int fd = -1) {
        const int old = std::exchange(fd_, fd);
        if (old >= 0) {
            close(old);
        }
    }

private:
    int fd_ = -1;
};

/// Wakes a thread that sits in poll(). Any thread may call Wake(); the waiting thread polls Get().
/// Without a descriptor left in the process IsValid() is false and nobody can be woken.
class Waker {
public:
    Waker() : fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}
    /// Takes over another one's descriptor.
    explicit Waker(Fd fd) : fd_(std::move(fd)) {}

    bool IsValid() const { return static_cast<bool>(fd_); }
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
    Fd fd_;
};

} // namespace ZARO::RelayHub
