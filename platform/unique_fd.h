/// One owner for each descriptor.
#pragma once

#include <unistd.h>

#include <utility>

namespace ZARO::Relay {

/// Owns a descriptor, or none (-1), and closes it when it goes.
class UniqueFd {
public:
    explicit UniqueFd(int fd = -1) : fd_(fd) {}
    ~UniqueFd() { (void)Close(); } // whoever cares about the result closes it himself
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.Release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    int Get() const { return fd_; }
    bool IsOpen() const { return fd_ >= 0; }

    /// Gives the descriptor to the caller.
    int Release() { return std::exchange(fd_, -1); }

    /// Closes it now. False, with errno, when close() tells of a failed write; true without one.
    bool Close() { return fd_ < 0 || close(Release()) == 0; }

private:
    int fd_;
};

} // namespace ZARO::Relay
